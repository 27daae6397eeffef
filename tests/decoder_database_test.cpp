// The process history database: start-up, fill and what the trigger key says afterwards. Read back by a connection of
// its own.

#include <sqlite3.h>

#include <filesystem>
#include <limits>

#include "decoder_support.h"
#include "failing_new.h"
#include "vestra-daemon/vestrad.h"

using namespace decoder_test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

static int page_limit;  // pages that a database which the daemon opens may have; 0: no limit

extern "C" int __real_sqlite3_open(const char *path, sqlite3 **handle);
extern "C" int __wrap_sqlite3_open(const char *path, sqlite3 **handle) {
    const int result = __real_sqlite3_open(path, handle);
    if (page_limit > 0) {
        sqlite3_exec(*handle, ("PRAGMA max_page_count=" + std::to_string(page_limit)).c_str(), nullptr, nullptr,
                     nullptr);
    }
    return result;
}

namespace {

constexpr char kDirectory[] = "/opt/usr/home/owner/share";
constexpr char kFile[] = "/opt/usr/home/owner/share/tvhistory.db";
constexpr char kColumns[] =
    "PROCESS_INFO(TIMESTAMP         VARCHAR(20)   NOT NULL,PROCESS_ID   INT   NOT NULL,PROCESS_NAME VARCHAR(20)  NULL,"
    "RSS_USED     INT   NOT NULL,SWAP_USED    INT   NOT NULL,CPU_PERCENTAGE_USED  DOUBLE   NOT NULL,RSS_BIN      INT   "
    "DEFAULT 0 NOT NULL,SWAP_BIN     INT   DEFAULT 0 NOT NULL,AVG_RSS      INT   DEFAULT 0 NOT NULL,SHM_CURR_TIME "
    "DATETIME DEFAULT CURRENT_TIMESTAMP,AVG_CPU      INT   DEFAULT 0 NOT NULL )";

using Rows = std::vector<std::vector<std::string>>;

Rows query(const std::string &statement) {
    sqlite3 *handle = nullptr;
    EXPECT_EQ(sqlite3_open_v2(kFile, &handle, SQLITE_OPEN_READWRITE, nullptr), 0);
    Rows rows;
    const auto add = [](void *out, int count, char **values, char **) {
        std::vector<std::string> row;
        for (int i = 0; i < count; ++i) row.emplace_back(values[i] != nullptr ? values[i] : "NULL");
        static_cast<Rows *>(out)->push_back(row);
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(handle, statement.c_str(), add, &rows, nullptr), 0) << sqlite3_errmsg(handle);
    sqlite3_close(handle);
    return rows;
}

std::string count_rows() {
    return query("SELECT COUNT(*) FROM PROCESS_INFO")[0][0];
}

// Appends a sample to the list as the decoder would.
void add(int64_t time, int32_t pid, const std::string &name, int32_t rss, int32_t swap, double cpu) {
    process_mem record = {time, pid, name, rss, swap};
    circ_buf_shm *node = GetShmNode(&record, cpu);
    node->next = ghead_shm;
    if (ghead_shm != nullptr) ghead_shm->prev = node;
    ghead_shm = node;
    if (last_node == nullptr) last_node = node;
}

void add_many(int count) {
    for (int i = 0; i < count; ++i) add(1000 + i, i, "process", 10, 20, 1);
}

int list_length() {
    int length = 0;
    for (const circ_buf_shm *node = ghead_shm; node != nullptr; node = node->next) ++length;
    return length;
}

int count_lines(const std::string &text) {
    int count = 0;
    for (const LogLine &line : take_log()) count += line.text == text ? 1 : 0;
    return count;
}

class Database : public DecoderTest {
  protected:
    Database() {
        fs::create_directories(kDirectory);
        fs::remove(kFile);
        EXPECT_EQ(ProcessDbInit(), 0);
        set_trigger_key(1);
        take_log();
    }
    ~Database() override {
        page_limit = 0;
        EXPECT_EQ(pthread_mutex_trylock(&shm_lock), 0) << "the list is not left locked";
        pthread_mutex_unlock(&shm_lock);
        sqlite3_close(db);
        db = nullptr;
    }
};

TEST_F(Database, StartMakesTheTableAnew) {
    query("INSERT INTO PROCESS_INFO(TIMESTAMP,PROCESS_ID,RSS_USED,SWAP_USED,CPU_PERCENTAGE_USED) VALUES (1,2,3,4,5)");
    EXPECT_EQ(ProcessDbInit(), 0);
    EXPECT_EQ(count_rows(), "0");
    EXPECT_EQ(query("SELECT sql FROM sqlite_master WHERE name='PROCESS_INFO'")[0][0],
              std::string("CREATE TABLE ") + kColumns);
    EXPECT_EQ(trigger_key(), 0);
    std::vector<std::string> texts;
    for (const LogLine &line : take_log(kError)) texts.push_back(line.text);
    EXPECT_THAT(texts, ElementsAre("DATABASE PATH : " + std::string(kFile), "Opened database successfully",
                                   "Success in Opening db : " + std::string(kFile), "Closed database successfully"));
}

TEST_F(Database, MissingDirectoryDoesNotKeepTheDaemonFromStarting) {
    fs::rename(kDirectory, "/opt/usr/home/owner/away");
    EXPECT_EQ(ProcessDbInit(), 0);
    const auto lines = take_log(kError);
    EXPECT_EQ(Process_Info_fill(), 0);
    fs::rename("/opt/usr/home/owner/away", kDirectory);
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[1].text, "Can't open database: unable to open database file");
    EXPECT_EQ(lines[2].text, "Success in Opening db : " + std::string(kFile));
    EXPECT_THAT(lines[3].text, HasSubstr("SQL error: "));
    EXPECT_THAT(lines[4].text, HasSubstr("SQL error: "));
    EXPECT_EQ(lines[5].text, "Closed database successfully");
}

TEST_F(Database, RowsAreTheSamplesNewestFirst) {
    add(-5, -3, "first", std::numeric_limits<int32_t>::min(), -1, -0.5);
    add(1'234'567'890'123'456'789, 32767, "it's; -- a name", 2147483647, 0, 99.9);
    add(7, 1, "", 1, 2, std::numeric_limits<double>::quiet_NaN());
    add(8, 2, "inf", 1, 2, std::numeric_limits<double>::infinity());
    add(9, 3, "huge", 1, 2, -1e300);
    Process_Info_fill();
    EXPECT_THAT(
        query("SELECT TIMESTAMP,PROCESS_ID,PROCESS_NAME,RSS_USED,SWAP_USED,CAST(CPU_PERCENTAGE_USED AS INT) FROM "
              "PROCESS_INFO ORDER BY rowid"),
        ElementsAre(ElementsAre("9", "3", "huge", "1", "2", "-9223372036854775808"),
                    ElementsAre("8", "2", "inf", "1", "2", "9223372036854775807"),
                    ElementsAre("7", "1", "", "1", "2", "0"),
                    ElementsAre("1234567890123456789", "32767", "it's; -- a name", "2147483647", "0", "99"),
                    ElementsAre("-5", "-3", "first", "-2147483648", "-1", "0")));
    EXPECT_THAT(query("SELECT RSS_BIN,SWAP_BIN,AVG_RSS,AVG_CPU,SHM_CURR_TIME > '2020' FROM PROCESS_INFO LIMIT 1"),
                ElementsAre(ElementsAre("0", "0", "0", "0", "1")));
    EXPECT_EQ(trigger_key(), 0);
}

TEST_F(Database, BatchesHoldAHundredRows) {
    const struct { int samples, statements; } kRows[] = {{0, 0}, {1, 1}, {100, 1}, {101, 2}, {250, 3}};
    for (const auto &row : kRows) {
        free_bufs_shm(&ghead_shm);
        last_node = nullptr;
        add_many(row.samples);
        set_trigger_key(1);
        Process_Info_fill();
        EXPECT_EQ(count_lines("Records inserted successfully!"), row.statements) << row.samples;
        EXPECT_EQ(count_rows(), std::to_string(row.samples));
        EXPECT_EQ(query("SELECT COUNT(DISTINCT PROCESS_ID) FROM PROCESS_INFO")[0][0], std::to_string(row.samples));
        EXPECT_EQ(trigger_key(), 0);
        EXPECT_EQ(list_length(), row.samples) << "the list is kept";
    }
}

TEST_F(Database, QuoteInANameFailsTheBatchAndLeavesTheKey) {
    add(2, 20, "bad\"name", 5, 6, 7.5);
    add(3, 30, "good", -5, 6, 7.5);
    Process_Info_fill();
    const auto lines = take_log(kError);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2].text,
              "SQL error: near \"name\": syntax error Query = INSERT INTO "
              "PROCESS_INFO(TIMESTAMP,PROCESS_ID,PROCESS_NAME,RSS_USED,SWAP_USED,CPU_PERCENTAGE_USED) VALUES  "
              "(3,30,\"good\",-5,6,7),(2,20,\"bad\"name\",5,6,7);");
    EXPECT_EQ(lines.back().text, "Closed database successfully");
    EXPECT_EQ(count_rows(), "0");
    EXPECT_EQ(trigger_key(), 1);
}

TEST_F(Database, BatchesBeforeAFailedOneStay) {
    add(2, 20, "bad\"name", 5, 6, 7.5);
    add_many(150);
    Process_Info_fill();
    EXPECT_EQ(count_rows(), "100");
    EXPECT_EQ(trigger_key(), 1);
}

TEST_F(Database, FullDiskIsNamedAndLeavesTheKey) {
    add_many(2000);
    page_limit = 4;
    Process_Info_fill();
    const auto lines = take_log(kError);
    ASSERT_GE(lines.size(), 3U);
    EXPECT_THAT(lines[lines.size() - 3].text, HasSubstr("SQL error: database or disk is full Query = INSERT INTO"));
    EXPECT_EQ(lines[lines.size() - 2].text, "Closed database successfully");
    EXPECT_EQ(lines.back().text, "Can't fill the table because there is no disk space left");
    EXPECT_EQ(trigger_key(), 1);
    page_limit = 0;
    Process_Info_fill();
    EXPECT_EQ(count_rows(), "2000") << "the next trigger fills it";
    EXPECT_EQ(trigger_key(), 0);
}

TEST_F(Database, FailedDeleteLeavesDatabaseOpenAndKeySet) {
    query("DROP TABLE PROCESS_INFO");
    add_many(3);
    Process_Info_fill();
    const auto lines = take_log(kError);
    EXPECT_EQ(lines.back().text, "SQL error: no such table: PROCESS_INFO");
    EXPECT_EQ(trigger_key(), 1);
    ASSERT_NE(db, nullptr);
    EXPECT_STREQ(sqlite3_db_filename(db, "main"), kFile) << "still open";
}

TEST_F(Database, OutOfMemoryReleasesTheListAndResetsTheKey) {
    add_many(150);
    failing_above = 2000;
    Process_Info_fill();
    failing_above = SIZE_MAX;
    EXPECT_EQ(count_rows(), "0");
    EXPECT_EQ(trigger_key(), 0);
    EXPECT_EQ(db, nullptr) << "closed";
}

// The fill looks at the list's head before it clears the table and takes the lock.
TEST_F(Database, HeadThatFellOffDuringTheDeleteIsNotTouched) {
    add_many(3);
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(+[](sqlite3 *handle, char **, const void *) {
        sqlite3_commit_hook(
            handle,
            [](void *) {
                if (ghead_shm->name == "newest") return 0;
                free_bufs_shm(&ghead_shm);
                last_node = nullptr;
                add(99, 99, "newest", 1, 2, 3);
                return 0;
            },
            nullptr);
        return SQLITE_OK;
    }));
    query("INSERT INTO PROCESS_INFO(TIMESTAMP,PROCESS_ID,RSS_USED,SWAP_USED,CPU_PERCENTAGE_USED) VALUES (1,2,3,4,5)");
    Process_Info_fill();
    sqlite3_reset_auto_extension();
    EXPECT_THAT(query("SELECT PROCESS_NAME FROM PROCESS_INFO"), ElementsAre(ElementsAre("newest")));
}

TEST_F(Database, ResetOfTheKeyIsLogged) {
    set_shm_default_vconf();
    EXPECT_TRUE(
        take_line({kDebug, "set_shm_default_vconf", "vconf_set_int(memory/SHM/trigger_db_write) success with 0"}));
}

}  // namespace
