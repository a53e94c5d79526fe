// Whole-file reads for the configuration readers.
#pragma once

#include <string>

// Reads the whole file at `path` into `*content`. False, with `*content` unchanged, when the file
// cannot be opened or read (a directory included); interrupted reads are retried.
bool ReadWholeFile(const std::string& path, std::string* content);
