// The command line of vekr-render and vekr-render-mpi, and the PNG output
// they share.
#ifndef VEKR_RENDER_OPTIONS_H
#define VEKR_RENDER_OPTIONS_H

#include <string>

#include "renderer.h"

namespace render {

struct CommandLine {
    Options opt;
    std::string meshPath, outPath;
    bool stats = false;
    bool help = false;
    int frames = 0;  // 0: one still image; N: a turntable of N frames
    int generate = 0;  // N > 0: render a generated scene of N million triangles instead of a mesh
};

extern const char* const kUsage;

// Parses argv. Returns 0 when the command line is usable (or --help was
// asked for); otherwise 2 with a one-line message in `error`.
int parseCommandLine(int argc, char** argv, CommandLine& cl, std::string& error);

// Output file of frame `frame` (the path itself for a still image; for a
// turntable NAME_000.png, NAME_001.png, ...).
std::string framePath(const CommandLine& cl, int frame);

// Writes an image as PNG; false when the file cannot be written.
bool writePng(const std::string& path, const Image& image);

}  // namespace render

#endif  // VEKR_RENDER_OPTIONS_H
