#pragma once

#include <string>

namespace zorhost {

/// What an info box is asked to show.
struct TSInfoBoxOptions
{
    std::string text;
    unsigned int x = 0; ///< of a screen of SCREEN_WIDTH by SCREEN_HEIGHT
    unsigned int y = 0;
    bool stays = false; ///< until it is ended from outside

    static constexpr unsigned int SCREEN_WIDTH = 1920;
    static constexpr unsigned int SCREEN_HEIGHT = 1080;
    static constexpr int SECONDS = 5; ///< how long a box is shown that does not stay
};

constexpr int EXIT_USAGE = 2;

/// Reads the command line. Help goes to standard output, a complaint to standard error.
///
/// @param exitCode  what to end with if there is nothing to show
/// @return whether there is something to show
bool ReadInfoBoxOptions(int argc, char** argv, TSInfoBoxOptions* options, int* exitCode);

} // namespace zorhost
