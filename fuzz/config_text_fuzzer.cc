// The configuration text parser: the file and memory readers must agree,
// and what the writer makes of a parsed store must read back to the same
// pairs.
#include "mox/mox.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

// Text of a store; equal texts mean equal pairs (the writer sorts keys).
std::string text_of(const mox_config *cfg)
{
    char *text = mox_write_config_mem(cfg);
    std::string out(text);
    mox_free(text);
    return out;
}

void check(bool ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "config fuzzer: %s\n", what);
        abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string input(reinterpret_cast<const char *>(data), size);
    mox_config *mem = mox_read_config_mem(input.c_str());

    mox_config *file_cfg = mox_create_config();
    FILE *f = fmemopen(input.data(), input.size(), "r");
    int rc = f != nullptr ? mox_parse_config_file(file_cfg, f) : 0;
    if (f != nullptr)
        fclose(f);
    if (f != nullptr && memchr(data, '\0', size) == nullptr) {
        check((rc == 0) == (mem != nullptr), "file and memory readers disagree on validity");
        if (mem != nullptr)
            check(text_of(mem) == text_of(file_cfg), "file and memory readers give other pairs");
    }
    if (f != nullptr && rc != 0)
        check(mox_config_size(file_cfg) == 0, "a refused text left pairs behind");
    mox_free_config(file_cfg);

    if (mem != nullptr) {
        std::string written = text_of(mem);
        mox_config *back = mox_read_config_mem(written.c_str());
        check(back != nullptr, "written text does not parse");
        check(mox_config_size(back) == mox_config_size(mem), "round trip changes the pair count");
        check(text_of(back) == written, "round trip changes the pairs");
        mox_free_config(back);
    }
    mox_free_config(mem);
    return 0;
}
