#include "tools/dump/lake.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>

#include "tools/dump/text.h"

namespace vestra_dump {
namespace {

namespace fs = std::filesystem;

constexpr const char *kSchema = "1";  // version of the tables' columns and of the tree
constexpr std::array<const Table *, 4> kTables = {&kVitalsTable, &kProcessesTable, &kDamageTable, &kDumpsTable};
constexpr const char *kFingerprintKey = "vestra.fingerprint", *kOptionsKey = "vestra.converted_by",
                     *kCleanKey = "vestra.clean";

// 64 bits of all bytes, not proof against people who look for two dumps with the same.
class Fingerprint {
  public:
    void add(const uint8_t *bytes, size_t count) {
        for (; in_word_ == 0 && count >= 8; count -= 8, bytes += 8) {
            for (size_t i = 0; i < 8; ++i) word_ |= uint64_t{bytes[i]} << 8 * i;
            mix();
        }
        for (; count > 0; --count, ++bytes) {
            word_ |= uint64_t{*bytes} << 8 * in_word_;
            if (++in_word_ == 8) mix();
        }
    }
    std::string end(uint64_t bytes) {
        mix();
        word_ = bytes;
        mix();
        std::string text;
        for (int shift = 60; shift >= 0; shift -= 4) text += "0123456789abcdef"[hash_ >> shift & 15];
        return text + '-' + std::to_string(bytes);
    }

  private:
    void mix() {
        hash_ = (hash_ ^ word_) * 0x9e3779b97f4a7c15U;
        hash_ ^= hash_ >> 32;
        word_ = in_word_ = 0;
    }

    uint64_t hash_ = 0, word_ = 0, in_word_ = 0;
};

std::string fingerprint(ByteSource &source) {
    constexpr uint64_t kSector = 512;
    std::vector<uint8_t> buffer(size_t{64} * 1024);
    Fingerprint result;
    uint64_t offset = 0;
    for (int64_t got = 1; got != 0; offset += got < 0 ? kSector : static_cast<uint64_t>(got)) {
        got = source.read_at(offset, buffer.data(), buffer.size());
        if (got < 0) got = source.read_at(offset, buffer.data(), kSector);
        if (got > 0) result.add(buffer.data(), static_cast<size_t>(got));
    }
    return result.end(offset);
}

// As Hive writes the values of partitions, which all engines undo. Bytes of UTF-8 stay.
std::string escaped(std::string_view text) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<uint8_t>(c);
        const bool first = out.empty() && (c == '.' || c == '_');  // engines take such files for hidden ones
        if (byte >= 0x80 || (!first && (std::isalnum(byte) != 0 || c == '_' || c == '-' || c == '.'))) {
            out += c;
        } else {
            out.append(1, '%').append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 15]);
        }
    }
    return out;
}

// A file name that is not too long for a file system, also with a suffix.
std::string file_name(const std::string &name) {
    constexpr size_t kMost = 200, kKept = 160;
    std::string file = escaped(name);
    if (file.size() <= kMost) return file;
    Fingerprint rest;
    rest.add(reinterpret_cast<const uint8_t *>(name.data()), name.size());
    size_t kept = kKept;
    while ((static_cast<uint8_t>(file[kept]) & 0xc0) == 0x80) --kept;  // no half character
    return file.substr(0, kept) + '~' + rest.end(name.size());
}

fs::path file_of(const std::string &lake, const Table &table, const std::string &place, const std::string &file) {
    return fs::path(lake) / table.name / place / (file + ".parquet");
}

parquet::Type type_of(const Column &column) {
    const std::string_view type = column.type;
    return type == "TEXT" ? parquet::Type::kText : type == "REAL" ? parquet::Type::kReal : parquet::Type::kInteger;
}

parquet::Layout layout_of(const Table &table) {
    parquet::Layout layout;
    layout.columns = {{"dump", parquet::Type::kText}};
    for (const Column &column : table.columns)
        layout.columns.push_back({column.name, type_of(column), column.nullable});
    if (table.time_column() < table.columns.size()) {
        layout.columns.push_back({"wall_time", parquet::Type::kTimestamp, true});
    }
    if (&table == &kProcessesTable) {
        // By name first: it is what sets have in common.
        for (const std::string_view key : {"name", "pid", "time_ns"}) {
            const auto found = std::find_if(layout.columns.begin(), layout.columns.end(),
                                            [key](const parquet::Column &column) { return column.name == key; });
            layout.sorted_by.push_back(static_cast<size_t>(found - layout.columns.begin()));
        }
    }
    return layout;
}

// What a person or an engine may want to know about a file without reading it.
parquet::Metadata metadata_of(const LakeEntry &entry, const Overview &overview) {
    const DumpTotals &totals = overview.summary.totals;
    const Trailer trailer = totals.trailer.value_or(Trailer{});
    return {{"vestra.schema", kSchema},
            {"vestra.dump", entry.name},
            {"vestra.build", printable(trailer.build)},
            {"vestra.model", printable(trailer.model)},
            {"vestra.trailer", totals.trailer ? "1" : "0"},
            {"vestra.damaged_spans", std::to_string(totals.damaged_spans)},
            {"vestra.damaged_bytes", std::to_string(totals.damaged_bytes)},
            {kCleanKey, totals.is_clean() ? "1" : "0"},
            {kFingerprintKey, entry.fingerprint},
            {kOptionsKey, entry.options}};
}

}  // namespace

LakeEntry make_entry(const std::string &name, const DumpTime &time, const Survey &survey, ByteSource &source,
                     const std::string &version) {
    LakeEntry entry;
    entry.name = printable(name);
    entry.file = file_name(entry.name);
    std::string model, day;
    if (survey.totals.trailer) model = printable(survey.totals.trailer->model);
    if (const auto &span = survey.timeline.span()) day = time.wall_time(span->newest_ns).substr(0, 10);
    const auto known = [](const std::string &text) { return text.empty() ? "unknown" : escaped(text); };
    entry.place = "model=" + known(model) + "/day=" + known(day);
    entry.fingerprint = fingerprint(source);
    entry.options = "vestra-dump " + version + ", schema " + kSchema + ", epoch " +
                    (time.epoch_ns ? std::to_string(*time.epoch_ns) : "unknown");
    return entry;
}

Existing find_existing(const std::string &lake, const LakeEntry &entry) {
    Existing found;
    std::error_code failed, problem;
    const fs::path dumps = fs::path(lake) / kDumpsTable.name;
    const auto see = [&](const std::string &place) {
        const std::string path = file_of(lake, kDumpsTable, place, entry.file).string();
        if (!fs::exists(path, problem)) return;
        const bool here = place == entry.place;
        if (!here) found.misplaced.push_back(place);
        if (!parquet::has_metadata(path, {{kFingerprintKey, entry.fingerprint}})) {
            found.presence = Presence::kOther;
        } else if (found.presence != Presence::kOther) {
            const bool same = here && parquet::has_metadata(path, {{kOptionsKey, entry.options}});
            found.presence = same && found.presence == Presence::kNone ? Presence::kSame : Presence::kOlder;
            found.clean = parquet::has_metadata(path, {{kCleanKey, "1"}});
        }
    };
    for (fs::directory_iterator model(dumps, failed); !failed && model != fs::end(model); model.increment(failed)) {
        fs::directory_iterator day(model->path(), problem);
        for (; !problem && day != fs::end(day); day.increment(problem)) {
            see((model->path().filename() / day->path().filename()).string());
        }
    }
    return found;
}

LakeLock::LakeLock(const std::string &lake) : fd_(open(lake.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    while (fd_ >= 0 && flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
    }
}

LakeLock::~LakeLock() {
    if (fd_ >= 0) close(fd_);
}

// One of the files of a dump.
class LakeWriter::File {
  public:
    File(const fs::path &path, const Table &of, const DumpTime &time)
        : table(of), path_(path), time_(time), time_column_(of.time_column()) {
        std::error_code failed;
        fs::create_directories(path.parent_path(), failed);
        if (failed) throw LakeError(printable(path.parent_path().string()) + ": " + failed.message());
        if (fs::is_symlink(path, failed)) fs::remove(path, failed);  // it may lead out of the lake
        std::string error;
        out_ = Output::open(path.string(), &error);
        if (out_ == nullptr) throw LakeError(printable(path.string()) + ": " + error);
        writer_.emplace(layout_of(of), [this](std::string_view bytes) { out_->write(bytes); });
    }

    void add(const std::string &dump, const Row &row) {
        writer_->add_text(dump);
        for (const Value &value : row) {
            if (value.kind == Value::kText) {
                writer_->add_text(value.text);
            } else if (value.kind == Value::kReal) {
                writer_->add_real(value.real);
            } else if (value.kind == Value::kInteger) {
                writer_->add_integer(value.integer);
            } else {
                writer_->add_nothing();
            }
        }
        if (time_column_ >= row.size()) return;
        const Value &time = row[time_column_];
        const auto unix_ns = time.kind == Value::kInteger ? time_.unix_ns(time.integer) : std::nullopt;
        if (unix_ns && *unix_ns >= 0) {
            writer_->add_integer(*unix_ns / 1000);
        } else {
            writer_->add_nothing();
        }
    }

    void complete(const std::string &version, const parquet::Metadata &metadata) {
        writer_->finish(version, metadata);
        std::string error;
        if (!out_->complete(&error)) throw LakeError(printable(path_.string()) + ": " + error);
    }

    void finish() {
        std::string error;
        if (!out_->close(&error)) throw LakeError(printable(path_.string()) + ": " + error);
    }

    const Table &table;

  private:
    const fs::path path_;
    const DumpTime &time_;
    const size_t time_column_;
    std::unique_ptr<Output> out_;
    std::optional<parquet::Writer> writer_;
};

LakeWriter::LakeWriter(const std::string &lake, const LakeEntry &entry, const DumpTime &time)
    : lake_(lake), entry_(entry), time_(time) {
    for (size_t i = 0; i < kTables.size(); ++i) {
        files_[i] = std::make_unique<File>(file_of(lake_, *kTables[i], entry_.place, entry_.file), *kTables[i], time_);
    }
}

LakeWriter::~LakeWriter() = default;

void LakeWriter::add(const Table &table, const Row &row) {
    for (const auto &file : files_) {
        if (&file->table == &table) file->add(entry_.name, row);
    }
}

void LakeWriter::complete(const Overview &overview) {
    VersionTexts texts;
    Row row;
    fill_row(overview, &texts, &row);
    add(kDumpsTable, row);
    const parquet::Metadata metadata = metadata_of(entry_, overview);
    const std::string program = entry_.options.substr(0, entry_.options.find(','));
    for (const auto &file : files_) file->complete(program, metadata);
}

void LakeWriter::finish(const std::vector<std::string> &misplaced) {
    const auto remove = [this](const Table &table, const std::string &place) {
        std::error_code failed;
        const fs::path path = file_of(lake_, table, place, entry_.file);
        fs::remove(path, failed);
        if (failed) throw LakeError(printable(path.string()) + ": " + failed.message());
    };
    remove(kDumpsTable, entry_.place);
    for (const std::string &place : misplaced) remove(kDumpsTable, place);
    for (const auto &file : files_) file->finish();
    for (const std::string &place : misplaced) {
        for (const Table *table : kTables) remove(*table, place);
    }
}

}  // namespace vestra_dump
