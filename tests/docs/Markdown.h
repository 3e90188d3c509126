#pragma once

#include <string>
#include <vector>

namespace zortest {

/// A fenced block of a document.
struct Block
{
    std::string language; ///< behind the opening fence
    std::string note;     ///< text of the comment in the line before it; empty if there is none
    std::string text;     ///< its lines, each with its end
};

/// The whole text of a file below the source tree; fails the test if it cannot be read.
std::string SourceText(const std::string& name);

/// The names of the files with @p extension in a directory of the source tree, sorted.
std::vector<std::string> SourceFiles(const std::string& directory, const std::string& extension);

/// Whether there is such a file or directory in the source tree.
bool SourceExists(const std::string& name);

/// What the first group of @p pattern, a POSIX extended regular expression, matches in @p text,
/// from one match to the next.
std::vector<std::string> FindAll(const std::string& text, const std::string& pattern);

/// The fenced blocks of a document, in order.
std::vector<Block> BlocksOf(const std::string& text);

/// The text of a document without its fenced blocks.
std::string ProseOf(const std::string& text);

/// What stands in a block with that note: the tutorial's outputs. Fails the test unless there is
/// one.
std::string BlockWithNote(const std::vector<Block>& blocks, const std::string& note);

} // namespace zortest
