// Reads the host big-data reporter's file back: one map of key to value per report line.
#pragma once

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace corvanetest {

constexpr const char* kBigDataReportFile = "data/vendor/camera/bigdata_reports.log";

inline std::vector<std::map<std::string, std::string>> ReadReports(const std::string& path) {
    std::vector<std::map<std::string, std::string>> reports;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        std::map<std::string, std::string> fields;
        std::istringstream in(line);
        for (std::string field; std::getline(in, field, '\t');) {
            size_t equals = field.find('=');
            fields[field.substr(0, equals)] =
                equals == std::string::npos ? "" : field.substr(equals + 1);
        }
        reports.push_back(fields);
    }
    return reports;
}

// "name/value/kind ..." of the reports in `path`, in order: readable when an expectation fails.
inline std::string ReportSummary(const std::string& path) {
    std::string summary;
    for (auto& report : ReadReports(path)) {
        summary += (summary.empty() ? "" : " ") + report["name"] + "/" + report["value"] + "/" +
                   report["kind"];
    }
    return summary;
}

}  // namespace corvanetest
