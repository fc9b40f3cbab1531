// The list file of the driver: one "IN OUT" pair of file names per line,
// separated by spaces or tabs; an empty line ends the list.
#pragma once

#include <cstdio>

namespace vorn::tool {

// Longest line read at once; a longer line is read as several.
constexpr int kListLineLen = 4000;

// Splits a list line into its words (separated by spaces and tabs) and
// returns how many there are, counting at most `max_words` + 1. The line end
// is cut whatever its form, so lists written on any system work.
int SplitListLine(char* line, char** words, int max_words);

enum class ListEntry { kPair, kEnd, kTooManyColumns };

// Reads the next line of `list` into `line` (kListLineLen + 1 chars) and
// points `in` and `out` into it; `out` is "" for a line with one name. The
// end of the file and an empty line both end the list.
ListEntry NextListEntry(FILE* list, char* line, const char** in, const char** out);

}  // namespace vorn::tool
