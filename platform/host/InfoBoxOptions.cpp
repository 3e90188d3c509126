#include "InfoBoxOptions.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <vector>

namespace zorhost {
namespace {

constexpr char DESCRIPTION[] =
    "Shows TEXT in a box on the terminal (on standard error if there is none) for 5 seconds.\n"
    "X and Y are of a screen of 1920 by 1080, which the terminal stands for.\n";

constexpr char FOOTER[] =
    "\n"
    "SIGTERM, SIGINT and SIGHUP take the box away.\n"
    "\n"
    "Exit codes:\n"
    "  0  the box has been shown\n"
    "  1  there is nothing to show it on\n"
    "  2  bad arguments\n";

constexpr size_t LEAST_ARGUMENTS = 3;

/// The command line back to front, as the parser wants it.
std::vector<std::string> ArgumentsOf(int argc, char** argv)
{
    std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    // A text may begin with a '-': with as many arguments as a box takes there are no options.
    if (arguments.size() == LEAST_ARGUMENTS || arguments.size() == LEAST_ARGUMENTS + 1) {
        arguments.insert(arguments.begin(), "--");
    }
    std::reverse(arguments.begin(), arguments.end());
    return arguments;
}

} // namespace

bool ReadInfoBoxOptions(int argc, char** argv, TSInfoBoxOptions* options, int* exitCode)
{
    CLI::App app(DESCRIPTION, "infobox");
    app.footer(FOOTER);
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.add_option("TEXT", options->text, "The text, of one line or more")->required();
    app.add_option("X", options->x, "Its place from the left")
        ->required()
        ->check(CLI::Range(0U, TSInfoBoxOptions::SCREEN_WIDTH));
    app.add_option("Y", options->y, "Its place from the top")
        ->required()
        ->check(CLI::Range(0U, TSInfoBoxOptions::SCREEN_HEIGHT));
    std::string stays;
    app.add_option("STAYS", stays, "'1': the box stays until it is taken away")
        ->check(CLI::IsMember({"1"}));
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return "infobox: " + std::string(error.what()) +
               "\nUsage: infobox TEXT X Y [1]; more with infobox --help\n";
    });
    try {
        app.parse(ArgumentsOf(argc, argv));
    } catch (const CLI::ParseError& error) {
        *exitCode = app.exit(error, std::cout, std::cerr) == 0 ? EXIT_SUCCESS : EXIT_USAGE;
        return false;
    }
    options->stays = !stays.empty();
    return true;
}

} // namespace zorhost
