// Raster pages as raw netpbm files (PBM, PGM, PPM).
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace printjob {

// The header of a raw netpbm file, and where its rows are.
struct RasterHeader {
    std::string text; // as it stands in the file, up to and with the white space before the first row
    unsigned width = 0;
    unsigned height = 0;
    std::size_t rowBytes = 0;

    std::size_t imageBytes() const { return rowBytes * height; }
};

// Reads a page row by row; throws std::runtime_error for a file that is no raw netpbm image.
class RasterReader
{
public:
    explicit RasterReader(const std::filesystem::path& file);

    const RasterHeader& header() const { return header_; }

    // Fills the buffer with the next bytes of the image; throws when the file ends early.
    void read(std::byte* to, std::size_t bytes);

private:
    unsigned number();
    int next();

    std::filesystem::path file_;
    std::ifstream stream_;
    RasterHeader header_;
};

// True when both files hold the same bytes.
bool sameBytes(const std::filesystem::path& left, const std::filesystem::path& right);

} // namespace printjob
