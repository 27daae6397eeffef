// The process history database: start-up, fill and what the trigger key says afterwards. The sqlite3 program reads it.

#include <sqlite3.h>

#include <cmath>

#include "decoder_support.h"
#include "platform/vconf.h"
#include "vestra-daemon/vestrad.h"

using namespace decoder_test;

constexpr char kDirectory[] = "/opt/usr/home/owner/share";
constexpr char kFile[] = "/opt/usr/home/owner/share/tvhistory.db";
constexpr char kKey[] = "memory/SHM/trigger_db_write";
constexpr char kInsert[] =
    "INSERT INTO PROCESS_INFO(TIMESTAMP,PROCESS_ID,RSS_USED,SWAP_USED,CPU_PERCENTAGE_USED) VALUES (1,2,3,4,5)";

// The answer's rows, a line each, the values separated by '|'.
static std::string query(const std::string &statement) {
    EXPECT_EQ(runShell(("sqlite3 " + std::string(kFile) + " \"" + statement + "\" > /tmp/answer").c_str()), 0);
    return read_file("/tmp/answer");
}

// Appends a sample to the list as the decoder would.
static void add(int64_t time, int32_t pid, const std::string &name, int32_t rss, int32_t swap, double cpu) {
    process_mem record = {time, pid, name, rss, swap};
    circ_buf_shm *node = GetShmNode(&record, cpu);
    node->next = ghead_shm;
    if (ghead_shm != nullptr) ghead_shm->prev = node;
    ghead_shm = node;
}
static void add_many(int count) {
    for (int i = 0; i < count; ++i) add(1000 + i, i, "process", 10, 20, 1);
}

class Database : public DecoderTest {
  protected:
    Database() {
        fs::create_directories(kDirectory);
        fs::remove(kFile);
        EXPECT_EQ(ProcessDbInit(), 0);
        begin_transcript();
    }
    ~Database() override {
        sqlite3_close(db);
        db = nullptr;
    }
    // Fills the table as the trigger does and expects this many rows in it and this value of the key afterwards.
    static void fill(int rows, int key_after) {
        EXPECT_EQ(vconf_set_int(kKey, 1), 0);
        EXPECT_EQ(Process_Info_fill(), 0);
        int key = -1;
        EXPECT_EQ(vconf_get_int(kKey, &key), 0);
        EXPECT_EQ(key, key_after);
        EXPECT_TRUE(rows < 0 || query("SELECT COUNT(*) FROM PROCESS_INFO") == std::to_string(rows) + "\n") << rows;
    }
};

TEST_F(Database, StartRecreatesTheTableOrGoesOnWithoutOne) {
    query(kInsert);
    EXPECT_EQ(ProcessDbInit(), 0);
    EXPECT_EQ(query("SELECT COUNT(*) FROM PROCESS_INFO"), "0\n");
    expect_golden("database-start", query("SELECT sql FROM sqlite_master WHERE name='PROCESS_INFO'") + log_text());
    fs::rename(kDirectory, "/opt/usr/home/owner/away");
    EXPECT_EQ(ProcessDbInit(), 0);
    expect_golden("database-start-without-storage", log_text());
    fill(-1, 1);
    fs::rename("/opt/usr/home/owner/away", kDirectory);
}

TEST_F(Database, RowsAreTheSamplesNewestFirst) {
    add(-5, -3, "first", INT_MIN, -1, -0.5);
    add(1'234'567'890'123'456'789, 32767, "it's;", 2147483647, 0, 99.9);
    add(7, 1, "", 1, 2, NAN);
    add(8, 2, "inf", 1, 2, INFINITY);
    add(9, 3, "huge", 1, 2, -1e300);
    fill(5, 0);
    const std::string columns = "TIMESTAMP,PROCESS_ID,PROCESS_NAME,RSS_USED,SWAP_USED,CAST(CPU_PERCENTAGE_USED AS INT)";
    expect_golden("database-fill", log_text() + query("SELECT " + columns + " FROM PROCESS_INFO ORDER BY rowid"));
}

TEST_F(Database, EachStatementHasAHundredRows) {
    for (const auto &[samples, statements] :
         Table<int, const char *>{{0, "with 0\n"}, {100, "fully!\n"}, {101, "! *2\n"}}) {
        free_bufs_shm(&ghead_shm);
        add_many(samples);
        fill(samples, 0);
        EXPECT_THAT(log_text(), HasSubstr(statements)) << samples;
    }
    EXPECT_EQ(query("SELECT COUNT(DISTINCT PROCESS_ID) FROM PROCESS_INFO"), "101\n");
}

TEST_F(Database, FillThatFailsLeavesTheKey) {
    add(2, 20, "bad\"name", 5, 6, 7.5);
    add(3, 30, "good", -5, 6, 7.5);
    fill(0, 1);
    expect_golden("database-fill-of-a-bad-name", log_text());
    add_many(150);
    fill(100, 1);  // the batch before the failed one stays
}

TEST_F(Database, NameThatContainsSqlMakesTheStatementFailAndRunsNothing) {
    for (const Strings &names : std::vector<Strings>{{"x\",1,1,1);--"},
                                                     {"x\",1,1,1)/*", "*/,(1,1,\"y"},
                                                     {"x\",1,1,1);/*", "*/DELETE FROM PROCESS_INFO;--"},
                                                     {"x\",1,1,1);/*", "*/DROP TABLE PROCESS_INFO;--"},
                                                     {"x\",1,1,1);/*", "*/ATTACH '/tmp/made' AS a;--"},
                                                     {"x\",randomblob(1000000000),1,1);--"}}) {
        free_bufs_shm(&ghead_shm);
        add(2, 20, "last", 5, 6, 7.5);
        for (auto name = names.rbegin(); name != names.rend(); ++name) add(1, 10, *name, 5, 6, 7.5);
        fill(0, 1);
        EXPECT_THAT(log_text("6"), HasSubstr("SQL error: not authorized Query = INSERT")) << names.front();
    }
    EXPECT_FALSE(fs::exists("/tmp/made"));
}

TEST_F(Database, FillMayOnlyInsertAndDelete) {
    add_many(1);
    fill(1, 0);
    const auto at_opening = [](sqlite3 *handle, char **, const void *) {
        const auto try_more = [](void *) {
            for (const char *statement : {"PRAGMA user_version=1", "ATTACH '/tmp/made' AS a", "DROP TABLE PROCESS_INFO",
                                          "SELECT * FROM PROCESS_INFO", "CREATE TABLE other(x)"}) {
                EXPECT_EQ(sqlite3_exec(db, statement, nullptr, nullptr, nullptr), SQLITE_AUTH) << statement;
            }
            EXPECT_EQ(sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, -1), 0);
            return 0;
        };
        sqlite3_commit_hook(handle, try_more, nullptr);
        return SQLITE_OK;
    };
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(+at_opening));
    fill(1, 0);
    sqlite3_reset_auto_extension();
}

TEST_F(Database, FillWithoutATableFailsAndLeavesItOpen) {
    add_many(1);
    query("DROP TABLE PROCESS_INFO");
    fill(-1, 1);
    EXPECT_THAT(log_text("6"), EndsWith("SQL error: no such table: PROCESS_INFO\n"));
    EXPECT_STREQ(sqlite3_db_filename(db, "main"), kFile) << "still open";
}

// The fill looks at the list's head before it clears the table and takes the lock.
TEST_F(Database, HeadThatFellOffDuringTheDeleteIsNotTouched) {
    query(kInsert);
    add_many(3);
    const auto at_opening = [](sqlite3 *handle, char **, const void *) {
        const auto replace_list = [](void *) {
            if (ghead_shm->name == "newest") return 0;
            circ_buf_shm *old = std::exchange(ghead_shm, nullptr);
            add(99, 99, "newest", 1, 2, 3);  // not where a freed one was
            free_bufs_shm(&old);
            return 0;
        };
        sqlite3_commit_hook(handle, replace_list, nullptr);
        return SQLITE_OK;
    };
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(+at_opening));
    fill(1, 0);
    sqlite3_reset_auto_extension();
    EXPECT_EQ(query("SELECT PROCESS_NAME FROM PROCESS_INFO"), "newest\n");
}
