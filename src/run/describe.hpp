// Module DESCRIBE: what the program reads, writes and answers, as JSON for programs in any
// language. Everything is taken from the records, tables and constants that the program itself
// works with.
#pragma once

#include <string>

namespace DESCRIBE {

// Raised when something that a reader of the description relies on is renamed, moved or removed;
// additions leave it.
inline constexpr int Schema = 1;

}  // namespace DESCRIBE

// The whole document, the same at every call. A limit or default that doesn't exist has no entry.
std::string DESCRIBE_TEXT();
