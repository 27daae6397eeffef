// A configuration file with any content.
//
// Rules: the result is 0 or -1. Only fields of the file are written; the filter fields keep their bytes. If an
// element is missing, the field of the last element is not written. Reading twice gives the same record.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz/fuzz_env.h"
#include "vestra-daemon/vestra_xml.h"

namespace {

char file_path[] = "/tmp/config.xml";
constexpr int kPattern = 0x5a;  // fills fields before a read
constexpr size_t kFilter = offsetof(VestraConfig_t, vestra_proc_filter_enable_num);

int read_config(VestraConfig_t *config) {
    memset(config, kPattern, sizeof(*config));
    return GetVestraConfigInfo(*config, file_path);
}

}  // namespace

void vestra_fuzz::prepare() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FILE *file = fopen(file_path, "we");
    if (file == nullptr || fwrite(data, 1, size, file) != size || fclose(file) != 0) abort();
    VestraConfig_t config, again;
    const int result = read_config(&config);
    FUZZ_RULE(result == 0 || result == -1, "the result is 0 or -1");
    const auto *bytes = reinterpret_cast<const char *>(&config);
    for (size_t i = kFilter; i < sizeof(config); ++i) {
        FUZZ_RULE(bytes[i] == kPattern, "the filter fields keep their bytes");
    }
    int32_t untouched;
    memset(&untouched, kPattern, sizeof(untouched));
    if (result != 0) {
        FUZZ_RULE(config.vestra_info_new_priority_nice == untouched, "reading stops at the first element missing");
    }
    FUZZ_RULE(read_config(&again) == result && memcmp(&config, &again, sizeof(config)) == 0, "a file has one meaning");
    return 0;
}
