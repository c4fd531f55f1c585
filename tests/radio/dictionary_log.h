// What the engine enters into FFmpeg's dictionaries.
#pragma once

#include <string>
#include <vector>

// Every entry as "key=value flags", in order, since the process began or ForgetDictionaryEntries.
std::vector<std::string> DictionaryEntries();
void ForgetDictionaryEntries();
