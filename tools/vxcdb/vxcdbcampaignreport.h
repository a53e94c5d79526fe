// What a campaign's reader gets: a summary table for a person (aligned like vxcdb's tables), one
// JSON document for a script, and a JUnit XML report for a CI server (one test case per step).
#pragma once

#include <ostream>

#include "tools/vxcdb/vxcdbcampaign.h"

namespace vxcdb {

// The table of steps and their four answers, the counts, then why each failed step failed.
void PrintCampaignSummary(const CampaignResult& result, std::ostream& out);

// {"campaign", "file", "passed", "counts", "seconds", "steps": [...]} and a line feed.
void PrintCampaignJson(const CampaignResult& result, std::ostream& out);

// A <testsuites> document with one <testsuite> of one <testcase> per step; a step that did not
// pass holds a <failure> whose text names the questions that failed.
void WriteCampaignJUnit(const CampaignResult& result, std::ostream& out);

// `text` made safe for XML character data and attribute values: markup characters escaped,
// characters XML 1.0 cannot hold and bytes that are not UTF-8 replaced by '?'.
std::string XmlEscape(const std::string& text);

}  // namespace vxcdb
