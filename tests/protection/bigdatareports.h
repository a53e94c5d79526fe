// Reads the host big-data reporter's file back: one map of key to value per report line.
#pragma once

#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace corvanetest {

constexpr const char* kBigDataReportFile = "data/vendor/camera/bigdata_reports.log";

inline std::vector<std::map<std::string, std::string>> ReadReports(const std::string& path) {
    std::vector<std::map<std::string, std::string>> reports;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        std::map<std::string, std::string> fields;
        size_t begin = 0;
        while (begin <= line.size()) {
            size_t end = line.find('\t', begin);
            if (end == std::string::npos) {
                end = line.size();
            }
            std::string field = line.substr(begin, end - begin);
            size_t equals = field.find('=');
            fields[field.substr(0, equals)] =
                equals == std::string::npos ? "" : field.substr(equals + 1);
            begin = end + 1;
        }
        reports.push_back(fields);
    }
    return reports;
}

}  // namespace corvanetest
