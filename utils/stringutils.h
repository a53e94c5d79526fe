// Small string helpers shared by the command channel, the hook engine and the databases.
// Their quirks are relied upon by stored data and replies; see each comment before changing one.
#pragma once

#include <string>
#include <vector>

// Appends the tokens of `text` to `*out`. Every character of `delimiters` is a delimiter; runs of
// delimiters collapse, so no empty token is ever produced. An empty delimiter set yields `text`.
void SplitString(std::string text, std::vector<std::string>* out, std::string delimiters);

// As SplitString, each token converted with std::stoi and sign-extended into 64 bits ("-1" is
// stored as 18446744073709551615). A token that is not a 32-bit number throws, as std::stoi does.
void SplitInt(std::string text, std::vector<unsigned long>* out, std::string delimiters);

// "a,b,c" from {a, b, c}; empty items are kept ({"a", ""} gives "a,").
std::string StringJoin(std::vector<std::string> items, std::string separator);
std::string StringJoinUint(const std::vector<unsigned long>& items, std::string separator);

// Same size and pairwise byte-equal items.
bool Compare(std::vector<std::string> a, std::vector<std::string> b);

// Pads `text` to `width` with `fill`, the odd fill character going to the right.
std::string Center(std::string text, int width, char fill);
std::string leftAlign(const std::string& text, int width, char fill);

bool StartsWith(const std::string& text, const std::string& prefix);

// Deliberately true when `suffix` is one character longer than `text` and absent from it (both
// sides of the position test are npos); otherwise the ordinary suffix test.
bool EndsWith(const std::string& text, const std::string& suffix);
