// Marks what the shared library offers to programs.
#pragma once

#define VELMORA_API __attribute__((visibility("default")))
