#include "core/database/hook/hookfwdboperations.h"

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/testsupport.h"

namespace {

using corvanetest::Sql;
using corvanetest::TempDir;

struct FwDatabase {
    TempDir dir;
    std::string path = dir / "hook.db";
    std::unique_ptr<HookFwDBOperations> db{HookFwDBOperations::Create(path, HOOK_FW_DB_TABLE_LIST)};
};

TEST(HookFwDBOperationsTest, CreatesAllFiveTablesInOneFile) {
    FwDatabase d;
    EXPECT_EQ(Sql(d.path, "select name from sqlite_master where type='table' order by rowid"),
              "hook_group\nhook_case\nhook\nhook_firmware\nfault_inject_ack\n");
}

TEST(HookFwDBOperationsTest, PendingCommandsAreKeptPerIdentifierTriple) {
    FwDatabase d;
    EXPECT_EQ(d.db->AddHookPrepare(HookFw{0, 1, 2, 3, "first"}), 0);
    EXPECT_EQ(d.db->AddHookPrepare(HookFw{0, 1, 2, 3, "second"}), 0);
    EXPECT_EQ(d.db->AddHookPrepare(HookFw{0, 0, 255, 7, ""}), 0);
    EXPECT_EQ(Sql(d.path, "select * from hook_firmware order by cam_module_id"),
              "0|255|7|\n1|2|3|second\n");

    DBTable table;
    int nRow = -1, nCol = -1;
    EXPECT_EQ(d.db->GetHookItemPrepare(HookFw{0, 1, 2, 3, "first"}, table, nRow, nCol), 0);
    EXPECT_EQ(nRow, 0);
    EXPECT_EQ(d.db->GetHookItemPrepare(HookFw{0, 1, 2, 3, "second"}, table, nRow, nCol), 0);
    EXPECT_EQ(nRow, 1);
    EXPECT_EQ(table[1], (std::vector<std::string>{"1", "2", "3", "second"}));

    std::vector<HookFw> all = d.db->GetHookAllItemToTable();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].cmd_id, 0);
    EXPECT_EQ(all[0].param, "second");
    EXPECT_EQ(all[1].subdev_id, 255);
    EXPECT_EQ(all[1].param, "<empty>");  // an empty param comes back marked

    EXPECT_EQ(d.db->DeleteHookPrepare(HookFw{0, 1, 2, 3, "whatever"}), 0);
    EXPECT_EQ(d.db->GetHookAllItemToTable().size(), 1u);
}

TEST(HookFwDBOperationsTest, AcknowledgementsStoreTheStatusAsHexText) {
    FwDatabase d;
    EXPECT_EQ(d.db->AddFaultInjectAck("hook", 1, 2, 3, 10), 0);
    EXPECT_EQ(d.db->AddFaultInjectAck("hook", 4, 2, 3, 255), 0);
    EXPECT_EQ(d.db->AddFaultInjectAck("hook", 1, 2, 3, 0x10), 0);  // replaces per key
    EXPECT_EQ(Sql(d.path, "select * from fault_inject_ack order by cam_module_id"),
              "hook|1|2|3|0x10\nhook|4|2|3|0xFF\n");

    DBTable table;
    EXPECT_EQ(d.db->GetFaultInjectAckItem("hook", 1, 2, 3, table), 0);
    EXPECT_EQ(table.size(), 2u);
    EXPECT_EQ(d.db->GetFaultInjectAckItem("hook", -1, 2, 3, table), 0);  // any camera module
    EXPECT_EQ(table.size(), 3u);
    EXPECT_EQ(d.db->GetFaultInjectAckItem("other", -1, 2, 3, table), 0);
    EXPECT_EQ(table.size(), 1u);  // only the empty header row

    EXPECT_EQ(d.db->DeleteFaultInjectAck("hook", 4, 2, 3), 0);
    EXPECT_EQ(Sql(d.path, "select count(*) from fault_inject_ack"), "1\n");
    // A null status is never matched by the delete's LIKE '%'.
    Sql(d.path, "insert into fault_inject_ack values('nul', 1, 2, 3, NULL)");
    EXPECT_EQ(d.db->DeleteFaultInjectAck("nul", 1, 2, 3), 0);
    EXPECT_EQ(Sql(d.path, "select count(*) from fault_inject_ack where hook_name='nul'"), "1\n");
}

TEST(HookFwDBOperationsTest, ClearEmptiesBothTables) {
    FwDatabase d;
    EXPECT_EQ(d.db->ClearHook(), 0);
    d.db->AddHookPrepare(HookFw{0, 1, 2, 3, "p"});
    d.db->AddFaultInjectAck("hook", 1, 2, 3, 1);
    EXPECT_EQ(d.db->ClearHook(), 0);
    EXPECT_EQ(Sql(d.path,
                  "select (select count(*) from hook_firmware) + (select count(*) from "
                  "fault_inject_ack)"),
              "0\n");
}

}  // namespace
