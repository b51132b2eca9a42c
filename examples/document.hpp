// A document's pages as raster files, drawn by Ghostscript.
#pragma once

#include <filesystem>
#include <vector>

namespace printjob {

// A document that Debian ships with Ghostscript; throws std::runtime_error when none is installed.
std::filesystem::path defaultDocument();

// Draws every page of a PDF or PostScript file as a colour raster into the folder, which is emptied first; the
// pages' files in order. Throws std::runtime_error with Ghostscript's own words when it fails.
std::vector<std::filesystem::path> drawPages(const std::filesystem::path& document, unsigned dpi,
                                             const std::filesystem::path& folder);

// The raster files of a folder in the order of their names; throws std::runtime_error when there is none.
std::vector<std::filesystem::path> pagesIn(const std::filesystem::path& folder);

} // namespace printjob
