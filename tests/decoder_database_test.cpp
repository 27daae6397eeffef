// The process history database: start-up, fill and what the trigger key says afterwards. Read back by a connection of
// its own.

#include <sqlite3.h>

#include <filesystem>
#include <limits>

#include "decoder_support.h"
#include "platform/vconf.h"
#include "vestra-daemon/vestrad.h"

using namespace decoder_test;
using ::testing::EndsWith;
namespace fs = std::filesystem;

static int page_limit;  // pages that a database which the daemon opens may have; 0: no limit

extern "C" int __real_sqlite3_open(const char *path, sqlite3 **handle);
extern "C" int __wrap_sqlite3_open(const char *path, sqlite3 **handle) {
    const int result = __real_sqlite3_open(path, handle);
    const std::string limit = "PRAGMA max_page_count=" + std::to_string(page_limit);
    if (page_limit > 0) sqlite3_exec(*handle, limit.c_str(), nullptr, nullptr, nullptr);
    return result;
}

namespace {

constexpr char kDirectory[] = "/opt/usr/home/owner/share";
constexpr char kFile[] = "/opt/usr/home/owner/share/tvhistory.db";
constexpr char kKey[] = "memory/SHM/trigger_db_write";
constexpr char kInsert[] =
    "INSERT INTO PROCESS_INFO(TIMESTAMP,PROCESS_ID,RSS_USED,SWAP_USED,CPU_PERCENTAGE_USED) VALUES (1,2,3,4,5)";

// The answer's rows, a line each, the values separated by '|'.
std::string query(const std::string &statement) {
    sqlite3 *handle = nullptr;
    EXPECT_EQ(sqlite3_open_v2(kFile, &handle, SQLITE_OPEN_READWRITE, nullptr), 0);
    std::string rows;
    const auto add = [](void *out, int count, char **values, char **) {
        auto *text = static_cast<std::string *>(out);
        for (int i = 0; i < count; ++i) text->append(values[i]).append(i + 1 < count ? "|" : "\n");
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(handle, statement.c_str(), add, &rows, nullptr), 0) << sqlite3_errmsg(handle);
    sqlite3_close(handle);
    return rows;
}

// Appends a sample to the list as the decoder would.
void add(int64_t time, int32_t pid, const std::string &name, int32_t rss, int32_t swap, double cpu) {
    process_mem record = {time, pid, name, rss, swap};
    circ_buf_shm *node = GetShmNode(&record, cpu);
    node->next = ghead_shm;
    if (ghead_shm != nullptr) ghead_shm->prev = node;
    ghead_shm = node;
}
void add_many(int count) {
    for (int i = 0; i < count; ++i) add(1000 + i, i, "process", 10, 20, 1);
}

class Database : public DecoderTest {
  protected:
    Database() {
        fs::create_directories(kDirectory);
        fs::remove(kFile);
        EXPECT_EQ(ProcessDbInit(), 0);
        take_log();
    }
    ~Database() override {
        sqlite3_close(db);
        db = nullptr;
    }
    // Fills the table as the trigger does and expects this many rows in it and this value of the key afterwards.
    static void fill(int rows, int key_behind) {
        EXPECT_EQ(vconf_set_int(kKey, 1), 0);
        EXPECT_EQ(Process_Info_fill(), 0);
        int key = -1;
        EXPECT_EQ(vconf_get_int(kKey, &key), 0);
        EXPECT_EQ(key, key_behind);
        EXPECT_TRUE(rows < 0 || query("SELECT COUNT(*) FROM PROCESS_INFO") == std::to_string(rows) + "\n") << rows;
    }
};

TEST_F(Database, StartMakesTheTableAnewOrGoesOnWithoutOne) {
    query(kInsert);
    EXPECT_EQ(ProcessDbInit(), 0);
    EXPECT_EQ(query("SELECT COUNT(*) FROM PROCESS_INFO"), "0\n");
    EXPECT_EQ(query("SELECT sql FROM sqlite_master WHERE name='PROCESS_INFO'"),
              "CREATE TABLE PROCESS_INFO(TIMESTAMP         VARCHAR(20)   NOT NULL,PROCESS_ID   INT   NOT "
              "NULL,PROCESS_NAME VARCHAR(20)  NULL,RSS_USED     INT   NOT NULL,SWAP_USED    INT   NOT "
              "NULL,CPU_PERCENTAGE_USED  DOUBLE   NOT NULL,RSS_BIN      INT   DEFAULT 0 NOT NULL,SWAP_BIN     INT   "
              "DEFAULT 0 NOT NULL,AVG_RSS      INT   DEFAULT 0 NOT NULL,SHM_CURR_TIME DATETIME DEFAULT "
              "CURRENT_TIMESTAMP,AVG_CPU      INT   DEFAULT 0 NOT NULL )\n");
    EXPECT_EQ(log_text(), R"(3 set_shm_default_vconf vconf_set_int(memory/SHM/trigger_db_write) success with 0
6 ProcessDbInit DATABASE PATH : /opt/usr/home/owner/share/tvhistory.db
6 openDB Opened database successfully
6 ProcessDbInit Success in Opening db : /opt/usr/home/owner/share/tvhistory.db
3 createTables Table PROCESS_INFO DROPPED successfully
3 createTables Table PROCESS_INFO created successfully
6 closeDB Closed database successfully
3 ProcessDbInit Success in Closing db : /opt/usr/home/owner/share/tvhistory.db
)");
    fs::rename(kDirectory, "/opt/usr/home/owner/away");
    EXPECT_EQ(ProcessDbInit(), 0);
    EXPECT_THAT(log_text(kError), EndsWith(R"(
6 openDB Can't open database: unable to open database file
6 ProcessDbInit Success in Opening db : /opt/usr/home/owner/share/tvhistory.db
6 createTables SQL error: unable to open database file
6 createTables SQL error: unable to open database file
6 closeDB Closed database successfully
)"));
    fill(-1, 1);
    fs::rename("/opt/usr/home/owner/away", kDirectory);
}

TEST_F(Database, RowsAreTheSamplesNewestFirstInBatchesOfAHundred) {
    add(-5, -3, "first", std::numeric_limits<int32_t>::min(), -1, -0.5);
    add(1'234'567'890'123'456'789, 32767, "it's;", 2147483647, 0, 99.9);
    add(7, 1, "", 1, 2, std::numeric_limits<double>::quiet_NaN());
    add(8, 2, "inf", 1, 2, std::numeric_limits<double>::infinity());
    add(9, 3, "huge", 1, 2, -1e300);
    fill(5, 0);
    EXPECT_EQ(query("SELECT TIMESTAMP,PROCESS_ID,PROCESS_NAME,RSS_USED,SWAP_USED,CAST(CPU_PERCENTAGE_USED AS INT) FROM "
                    "PROCESS_INFO ORDER BY rowid"),
              "9|3|huge|1|2|-9223372036854775808\n8|2|inf|1|2|9223372036854775807\n7|1||1|2|0\n"
              "1234567890123456789|32767|it's;|2147483647|0|99\n-5|-3|first|-2147483648|-1|0\n");
    EXPECT_EQ(log_text(), R"(6 openDB Opened database successfully
6 Process_Info_fill Success in Opening db : /opt/usr/home/owner/share/tvhistory.db
3 Process_Info_fill Table PROCESS_INFO previous record cleared successfully
3 Process_Info_fill Records inserted successfully!
6 closeDB Closed database successfully
3 Process_Info_fill Success in Closing db : /opt/usr/home/owner/share/tvhistory.db
6 Process_Info_fill Filling in Table PROCESS_INFO Ends
3 set_shm_default_vconf vconf_set_int(memory/SHM/trigger_db_write) success with 0
)");
    const std::pair<int, int> batches[] = {{0, 0}, {100, 1}, {101, 2}, {250, 3}};
    for (const auto &[samples, statements] : batches) {
        free_bufs_shm(&ghead_shm);
        add_many(samples);
        fill(samples, 0);
        int inserts = 0;
        for (const LogLine &line : take_log()) inserts += line.text == "Records inserted successfully!" ? 1 : 0;
        EXPECT_EQ(inserts, statements) << samples;
    }
    EXPECT_EQ(query("SELECT COUNT(DISTINCT PROCESS_ID) FROM PROCESS_INFO"), "250\n");
}

TEST_F(Database, FailuresLeaveTheKeyAndAreNamed) {
    add(2, 20, "bad\"name", 5, 6, 7.5);
    add(3, 30, "good", -5, 6, 7.5);
    fill(0, 1);
    EXPECT_THAT(log_text(kError),
                EndsWith("\n6 Process_Info_fill SQL error: near \"name\": syntax error Query = INSERT INTO "
                         "PROCESS_INFO(TIMESTAMP,PROCESS_ID,PROCESS_NAME,RSS_USED,SWAP_USED,CPU_"
                         "PERCENTAGE_USED) VALUES  (3,30,\"good\",-5,6,7),(2,20,\"bad\"name\",5,6,7);"
                         "\n6 closeDB Closed database successfully\n"));
    add_many(150);
    fill(100, 1);  // the batch before the failed one stays
    free_bufs_shm(&ghead_shm);
    add_many(2000);
    page_limit = 4;
    fill(-1, 1);
    page_limit = 0;
    const std::string log = log_text(kError);
    EXPECT_THAT(log, testing::HasSubstr("6 Process_Info_fill SQL error: database or disk is full Query = INSERT INTO"));
    EXPECT_THAT(log, EndsWith("\n6 Process_Info_fill Can't fill the table because there is no disk space left\n"));
    fill(2000, 0);
    query("DROP TABLE PROCESS_INFO");
    fill(-1, 1);
    EXPECT_THAT(log_text(kError), EndsWith("SQL error: no such table: PROCESS_INFO\n"));
    EXPECT_STREQ(sqlite3_db_filename(db, "main"), kFile) << "still open";
}

// The fill looks at the list's head before it clears the table and takes the lock.
TEST_F(Database, HeadThatFellOffDuringTheDeleteIsNotTouched) {
    query(kInsert);
    add_many(3);
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(+[](sqlite3 *handle, char **, const void *) {
        const auto replace_list = [](void *) {
            if (ghead_shm->name == "newest") return 0;
            circ_buf_shm *old = std::exchange(ghead_shm, nullptr);
            add(99, 99, "newest", 1, 2, 3);  // not where a freed one was
            free_bufs_shm(&old);
            return 0;
        };
        sqlite3_commit_hook(handle, replace_list, nullptr);
        return SQLITE_OK;
    }));
    fill(1, 0);
    sqlite3_reset_auto_extension();
    EXPECT_EQ(query("SELECT PROCESS_NAME FROM PROCESS_INFO"), "newest\n");
}

}  // namespace
