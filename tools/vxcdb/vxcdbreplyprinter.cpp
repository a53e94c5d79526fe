#include "tools/vxcdb/vxcdbreplyprinter.h"

#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/prettywriter.h>

#include <algorithm>

#include "core/controller/vxcdbprotocol.h"
#include "tools/vxcdb/vxcdbhints.h"
#include "utils/stringutils.h"

namespace vxcdb {

namespace {

constexpr const char* kColumnGap = "  ";

// Cells of one comma-separated row; empty cells are kept (unlike SplitString).
std::vector<std::string> SplitCells(const std::string& row) {
    std::vector<std::string> cells;
    size_t start = 0;
    for (;;) {
        size_t comma = row.find(',', start);
        cells.push_back(row.substr(start, comma == std::string::npos ? comma : comma - start));
        if (comma == std::string::npos) {
            return cells;
        }
        start = comma + 1;
    }
}

bool IsWide(uint32_t c) {
    return (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF) ||
           (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) ||
           (c >= 0xFE30 && c <= 0xFE4F) || (c >= 0xFF00 && c <= 0xFF60) ||
           (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x20000 && c <= 0x3FFFD);
}

// Pads to a display width: the string helpers count bytes, so widen the field by the bytes that
// take no column of their own.
std::string PadRight(const std::string& text, int width) {
    return leftAlign(text, width + static_cast<int>(text.size()) - DisplayWidth(text), ' ');
}

std::string Centred(const std::string& text, int width) {
    return Center(text, width + static_cast<int>(text.size()) - DisplayWidth(text), ' ');
}

std::string TrimRight(std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

}  // namespace

void PrintTable(const ReplyItem& table, std::ostream& out) {
    size_t columns = table.columns.size();
    for (const auto& row : table.rows) {
        columns = std::max(columns, row.size());  // a cell holding a comma adds a column
    }
    std::vector<int> widths(columns, 0);
    for (size_t c = 0; c < table.columns.size(); ++c) {
        widths[c] = DisplayWidth(table.columns[c]);
    }
    for (const auto& row : table.rows) {
        for (size_t c = 0; c < row.size(); ++c) {
            widths[c] = std::max(widths[c], DisplayWidth(row[c]));
        }
    }
    std::string header, rule;
    for (size_t c = 0; c < columns; ++c) {
        const std::string name = c < table.columns.size() ? table.columns[c] : "";
        header += (c ? kColumnGap : "") + Centred(name, widths[c]);
        rule += (c ? kColumnGap : "") + std::string(widths[c], '-');
    }
    out << TrimRight(header) << '\n' << rule << '\n';
    for (const auto& row : table.rows) {
        std::string line;
        for (size_t c = 0; c < row.size(); ++c) {
            line += (c ? kColumnGap : "") + PadRight(row[c], widths[c]);
        }
        out << TrimRight(line) << '\n';
    }
    if (table.rows.empty()) {
        out << "(no rows)\n";
    }
}

namespace {

void PrintText(std::ostream& out, const std::string& text) {
    out << text;
    if (text.empty() || text.back() != '\n') {
        out << '\n';
    }
}

}  // namespace

int DisplayWidth(const std::string& text) {
    int width = 0;
    for (size_t i = 0; i < text.size();) {
        unsigned char lead = static_cast<unsigned char>(text[i]);
        size_t length = lead < 0x80    ? 1
                        : lead >= 0xF0 ? 4
                        : lead >= 0xE0 ? 3
                        : lead >= 0xC0 ? 2
                                       : 1;
        uint32_t codePoint = length == 1 ? lead : lead & (0x3F >> (length - 1));
        for (size_t k = 1; k < length && i + k < text.size(); ++k) {
            codePoint = (codePoint << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        }
        width += IsWide(codePoint) ? 2 : 1;
        i += length;
    }
    return width;
}

std::vector<ReplyItem> ReadReply(const VXCDBMessage& reply) {
    std::vector<ReplyItem> items;
    std::string type;
    for (const VXCDBMessage_CDBCmd& entry : reply.cmds()) {
        if (entry.options() == VXCDB_KEY_TYPE) {
            type = entry.arguments_size() > 0 ? entry.arguments(0) : "";
            continue;
        }
        ReplyItem item;
        item.type = type;
        if (type == VXCDB_TYPE_LIST) {
            item.isTable = true;
            item.columns = SplitCells(entry.options());
            for (const std::string& row : entry.arguments()) {
                item.rows.push_back(SplitCells(row));
            }
        } else {
            item.key = entry.options();
            item.values.assign(entry.arguments().begin(), entry.arguments().end());
        }
        items.push_back(std::move(item));
    }
    return items;
}

bool ReplyHasError(const VXCDBMessage& reply) {
    for (const ReplyItem& item : ReadReply(reply)) {
        if (!item.isTable && item.key == VXCDB_KEY_ERROR) {
            return true;
        }
    }
    return false;
}

void PrintReplyText(const VXCDBMessage& reply, std::ostream& out, std::ostream& err) {
    std::string errorHelp;  // every error carries the same usage text: show it once
    for (const ReplyItem& item : ReadReply(reply)) {
        if (item.isTable) {
            PrintTable(item, out);
        } else if (item.key == VXCDB_KEY_ERROR) {
            const std::string error = item.values.empty() ? "" : item.values[0];
            err << "error: " << error << '\n';
            const std::string hint = HintForError(error);
            if (!hint.empty()) {
                err << "hint: " << hint << '\n';
            }
            for (size_t i = 1; i < item.values.size(); ++i) {
                errorHelp = item.values[i];
            }
        } else if (item.key == VXCDB_KEY_HELP || item.key == VXCDB_KEY_MESSAGE) {
            for (const std::string& value : item.values) {
                PrintText(out, value);
            }
        } else {
            out << item.key << ": " << StringJoin(item.values, " ") << '\n';
        }
    }
    if (!errorHelp.empty()) {
        err << '\n';
        PrintText(err, errorHelp);
    }
}

void PrintReplyJson(const VXCDBMessage& reply, std::ostream& out) {
    rapidjson::OStreamWrapper stream(out);
    rapidjson::PrettyWriter<rapidjson::OStreamWrapper> writer(stream);
    writer.SetIndent(' ', 2);
    writer.StartObject();
    writer.Key("module");
    writer.String(reply.modulename());
    writer.Key("moduleType");
    writer.String(VXCDBMessage::CDBModuleType_Name(reply.moduletype()));
    writer.Key("ok");
    writer.Bool(!ReplyHasError(reply));
    writer.Key("items");
    writer.StartArray();
    for (const ReplyItem& item : ReadReply(reply)) {
        writer.StartObject();
        writer.Key("type");
        writer.String(item.type);
        if (item.isTable) {
            writer.Key("columns");
            writer.StartArray();
            for (const std::string& column : item.columns) {
                writer.String(column);
            }
            writer.EndArray();
            writer.Key("rows");
            writer.StartArray();
            for (const auto& row : item.rows) {
                writer.StartArray();
                for (const std::string& cell : row) {
                    writer.String(cell);
                }
                writer.EndArray();
            }
            writer.EndArray();
        } else {
            writer.Key("key");
            writer.String(item.key);
            writer.Key("values");
            writer.StartArray();
            for (const std::string& value : item.values) {
                writer.String(value);
            }
            writer.EndArray();
        }
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
    stream.Flush();
    out << '\n';
}

}  // namespace vxcdb
