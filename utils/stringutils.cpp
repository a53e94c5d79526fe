#include "utils/stringutils.h"

namespace {

// Calls `emit` for every token of `text`; shared by SplitString and SplitInt.
template <typename Emit>
void Tokenize(const std::string& text, const std::string& delimiters, Emit emit) {
    std::string::size_type start = text.find_first_not_of(delimiters);
    std::string::size_type end = text.find_first_of(delimiters, start);
    while (start != std::string::npos || end != std::string::npos) {
        emit(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        start = text.find_first_not_of(delimiters, end);
        end = text.find_first_of(delimiters, start);
    }
}

}  // namespace

void SplitString(std::string text, std::vector<std::string>* out, std::string delimiters) {
    Tokenize(text, delimiters, [out](std::string token) { out->push_back(std::move(token)); });
}

void SplitInt(std::string text, std::vector<unsigned long>* out, std::string delimiters) {
    Tokenize(text, delimiters, [out](const std::string& token) {
        out->push_back(static_cast<unsigned long>(static_cast<long>(std::stoi(token))));
    });
}

std::string StringJoin(std::vector<std::string> items, std::string separator) {
    std::string joined;
    for (size_t i = 0; i < items.size(); ++i) {
        joined += items[i];
        if (i + 1 < items.size()) {
            joined += separator;
        }
    }
    return joined;
}

std::string StringJoinUint(const std::vector<unsigned long>& items, std::string separator) {
    std::vector<std::string> texts;
    texts.reserve(items.size());
    for (unsigned long item : items) {
        texts.push_back(std::to_string(item));
    }
    return StringJoin(std::move(texts), std::move(separator));
}

bool Compare(std::vector<std::string> a, std::vector<std::string> b) {
    return a == b;
}

std::string Center(std::string text, int width, char fill) {
    int length = static_cast<int>(text.size());
    if (width <= length) {
        return text;
    }
    int left = (width - length) / 2;
    int right = width - length - left;
    return std::string(left, fill) + text + std::string(right, fill);
}

std::string leftAlign(const std::string& text, int width, char fill) {
    int length = static_cast<int>(text.size());
    if (length >= width) {
        return text;
    }
    return text + std::string(width - length, fill);
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.rfind(suffix) == text.size() - suffix.size();
}
