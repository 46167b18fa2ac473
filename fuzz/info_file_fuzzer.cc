// info_file_parse on arbitrary file contents. The first input byte picks
// the expected size (in steps of 32 bytes) and the second a run of blanks
// (in steps of 48) added after the rest, so that short inputs reach the
// read-buffer limit from both sides. A parsed store must survive a write
// and a second parse unchanged, apart from ".mtime_ms".
#include "co_host.h"
#include "mox/mox.h"
#include "utils/utils.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace
{

constexpr const char *kMagic = "tarn.fuzz.1";

struct Paths {
    std::string dir;
    std::string input;
    std::string output;
};

// Never destroyed: the exit handler below still needs the names.
const Paths &paths()
{
    static const Paths *p = [] {
        char dir[] = "/tmp/tarn-info-fuzz.XXXXXX";
        if (mkdtemp(dir) == nullptr)
            abort();
        atexit([] {
            unlink(paths().input.c_str());
            unlink(paths().output.c_str());
            rmdir(paths().dir.c_str());
        });
        return new Paths{dir, std::string(dir) + "/in", std::string(dir) + "/out"};
    }();
    return *p;
}

void check(bool ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "info file fuzzer: %s\n", what);
        abort();
    }
}

void put_file(const std::string &path, const uint8_t *data, size_t size, size_t blanks)
{
    std::string content(reinterpret_cast<const char *>(data), size);
    content.append(blanks, ' ');
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    check(fd >= 0, "can't create the input file");
    check(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
          "can't write the input file");
    close(fd);
}

std::string text_without_mtime(mox_config *cfg)
{
    mox_config_unset(cfg, ".mtime_ms");
    char *text = mox_write_config_mem(cfg);
    std::string out(text);
    mox_free(text);
    return out;
}

mox_config *parse(const std::string &path, uint32_t size, int *rc)
{
    mox_co_file *f = nullptr;
    check(mox_co_file_open(path.c_str(), O_RDONLY, 0600, &f) == 0, "can't open a file");
    mox_config *cfg = nullptr;
    *rc = info_file_parse(path.c_str(), f, kMagic, size, &cfg);
    mox_co_file_close(f);
    check((*rc == 0) == (cfg != nullptr), "a store comes back exactly on success");
    return cfg;
}

// Writes `cfg` as an info file and parses it again.
void round_trip(mox_config *cfg)
{
    char *text = mox_write_config_mem(cfg);
    auto size = static_cast<uint32_t>(2 * strlen(text) + 128); // room for the two added keys
    mox_free(text);
    mox_co_file *f = nullptr;
    const std::string &out = paths().output;
    check(mox_co_file_open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600, &f) == 0,
          "can't open the output file");
    check(info_file_write(out.c_str(), f, kMagic, size, cfg) == 0, "write of a parsed store fails");
    mox_co_file_close(f);
    mox_config_unset(cfg, ".type");
    int rc = 0;
    mox_config *back = parse(out, size, &rc);
    check(rc == 0, "a written info file does not parse");
    check(text_without_mtime(back) == text_without_mtime(cfg), "round trip changes the pairs");
    mox_free_config(back);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    uint32_t expected = static_cast<uint32_t>(data[0]) * 32;
    put_file(paths().input, data + 2, size - 2, static_cast<size_t>(data[1]) * 48);
    tarn_fuzz::run_in_coroutine([&] {
        int rc = 0;
        mox_config *cfg = parse(paths().input, expected, &rc);
        check(rc == 0 || rc == -27 || rc == -29, "unexpected error code");
        if (cfg != nullptr) {
            const char *v = nullptr;
            check(mox_config_getstr(cfg, ".type", &v) == -8, "the magic stays in the store");
            round_trip(cfg);
        }
        mox_free_config(cfg);
    });
    return 0;
}
