#include "list_file.h"

#include <cstring>

namespace vorn::tool {

int SplitListLine(char* line, char** words, int max_words) {
  size_t n = strlen(line);
  while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r')) line[--n] = '\0';
  int count = 0;
  char* p = line;
  for (;;) {
    while (*p == ' ' || *p == '\t') ++p;
    if (*p == '\0') return count;
    if (count == max_words) return count + 1;
    words[count++] = p;
    while (*p != '\0' && *p != ' ' && *p != '\t') ++p;
    if (*p != '\0') *p++ = '\0';
  }
}

ListEntry NextListEntry(FILE* list, char* line, const char** in, const char** out) {
  if (fgets(line, kListLineLen, list) == nullptr) return ListEntry::kEnd;
  char* words[2] = {nullptr, nullptr};
  const int count = SplitListLine(line, words, 2);
  if (count > 2) return ListEntry::kTooManyColumns;
  if (count == 0) return ListEntry::kEnd;
  *in = words[0];
  *out = words[1] != nullptr ? words[1] : "";
  return ListEntry::kPair;
}

}  // namespace vorn::tool
