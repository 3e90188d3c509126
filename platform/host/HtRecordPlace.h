#pragma once

#include <string>

/// @file
/// Where a recording is to go: what lies at its path already, and who records into it.

namespace zorhost {

/// Behind the name of the recording before the present one.
constexpr char OLD_RECORDING_SUFFIX[] = ".old";

/// Makes a place for a new recording: an empty regular file at @p path, open for reading and
/// writing and locked for this process and its children.
///
/// A recording that lies there is moved to its name with ".old", in place of one that may be there;
/// where @p path is a symbolic link, that happens to the file that it leads to. Nothing else is
/// moved or replaced: a file with other contents is left alone at either name. An empty file is
/// nobody's recording and is taken.
///
/// @param why  why there is none, a cause in plain words
/// @return the descriptor; -1 if there is no place
int OpenRecordPlace(const std::string& path, std::string* why);

} // namespace zorhost
