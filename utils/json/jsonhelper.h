// Whole-file JSON reading and writing for small state files (the probe history). Reading allows
// comments and trailing commas and refuses files over 5 MiB or nested deeper than 256 levels;
// writing is compact. Neither throws.
#pragma once

#include <rapidjson/document.h>

#include <string>

// Largest file ReadJsonFile accepts, in bytes (exactly this size is accepted).
constexpr long JSON_FILE_SIZE_LIMIT = 5 * 1024 * 1024;

// Status codes of the file functions.
constexpr int JSON_FILE_OK = 0;
constexpr int JSON_FILE_FAILED = 1;      // not found, not opened, malformed, not written
constexpr int JSON_FILE_EXCEPTION = 3;   // an exception while reading
constexpr int JSON_FILE_TOO_LARGE = 21;  // larger than JSON_FILE_SIZE_LIMIT

// Parses the file at `path` into `doc` (nesting bounded by JSON_MAX_DEPTH). After an error `doc`
// keeps its previous value.
int ReadJsonFile(const std::string& path, rapidjson::Document& doc);

// Replaces the file at `path` with the compact text of `doc`: 0, or 1 when the file cannot be
// opened or written completely (a value the writer refuses, a full disk).
int WriteJsonFile(const std::string& path, const rapidjson::Document& doc);
