// What the protection tests share: the switches' property names and the host's report file.
#pragma once

#include <fstream>
#include <regex>
#include <string>

namespace corvanetest {

constexpr const char* kMainSwitch =
    "persist.vendor.camera.cloud.corvanesystem.protection.mainswitch";
// The first of a scheme's two properties: this prefix and the scheme's name.
inline const std::string kSchemePrefix = "persist.vendor.camera.cloud.corvanesystem.protection.";

constexpr const char* kBigDataReportFile = "data/vendor/camera/bigdata_reports.log";

// "name/value/kind ..." of the reports in `path`, in order: readable when an expectation fails.
inline std::string ReportSummary(const std::string& path) {
    const std::regex fields("\tname=([^\t]*)\t.*\tvalue=([^\t]*)\tkind=([^\t]*)\t");
    std::string summary;
    std::ifstream file(path);
    std::smatch match;
    for (std::string line; std::getline(file, line);) {
        bool parsed = std::regex_search(line, match, fields);
        summary += (summary.empty() ? "" : " ") +
                   (parsed ? match.str(1) + "/" + match.str(2) + "/" + match.str(3) : line);
    }
    return summary;
}

}  // namespace corvanetest
