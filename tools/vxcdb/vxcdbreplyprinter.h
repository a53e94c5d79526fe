// Turns a reply into what its reader wants: text for a person (plain messages, aligned tables,
// errors on the error stream) or JSON for a script.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "vxcdbmessage.pb.h"

namespace vxcdb {

// One part of a reply: a keyed entry (key and values) or a table (columns and rows).
struct ReplyItem {
    std::string type;  // of the part it belongs to: "string", "list", ... ("" before any type)
    bool isTable = false;
    std::string key;
    std::vector<std::string> values;
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;
};

// The items of a reply in order; the "type" entries only set the type of what follows.
std::vector<ReplyItem> ReadReply(const VXCDBMessage& reply);

// True when the reply carries an "error" entry.
bool ReplyHasError(const VXCDBMessage& reply);

// Plain messages and tables to `out`, errors to `err` (the help text they carry once, at the end).
void PrintReplyText(const VXCDBMessage& reply, std::ostream& out, std::ostream& err);

// {"module", "moduleType", "ok", "items": [{"type", "key", "values"} | {"type", "columns",
// "rows"}]} followed by a line feed.
void PrintReplyJson(const VXCDBMessage& reply, std::ostream& out);

// One table in the aligned style of the replies: the header centred, a line of dashes, the rows
// left-aligned, two blanks between columns; "(no rows)" under a table without rows.
void PrintTable(const ReplyItem& table, std::ostream& out);

// Width of a UTF-8 text on a terminal: East Asian wide characters count two columns.
int DisplayWidth(const std::string& text);

}  // namespace vxcdb
