// Each operation runs in a child of the caller's context: a caller's short
// deadline ends a stalled per-file call, so the 120 s bound needs no 120 s.
#include "co_runner.h"
#include "frame/tarn_ctl.h"
#include "mox/co.h"
#include "replication/replication.h"
#include "sites.h"

#include <getopt.h>
#include <gtest/gtest.h>

namespace
{

TEST(ReplicationTimeout, StalledCallEndsTheOperation)
{
    Sites s;
    s.a.write("/acc/f1");
    s.a.fault(R"({"op": "/v1/file/replication/enable", "delay_ms": 5000})");
    std::vector<std::string> args = {"replication",
                                     "--master-addr",
                                     s.a.addr(),
                                     "--master-uid",
                                     "dc-a",
                                     "--master-cert",
                                     ember_test::pki_file("site-rsa.pem"),
                                     "--slave-addr",
                                     s.b.addr(),
                                     "--slave-uid",
                                     "dc-b",
                                     "--slave-cert",
                                     ember_test::pki_file("web-ec.pem"),
                                     "--enable",
                                     "/acc"};
    EXPECT_EXIT(
        {
            config = nullptr; // the tool may run without a configuration
            std::vector<char *> argv;
            for (auto &a : args)
                argv.push_back(a.data());
            opterr = 0;
            optind = 0;
            parse_opts_replication(static_cast<int>(argv.size()), argv.data());
            tarn_test::run_in_coroutine([] {
                mox_co_ctx_set_timeout(1000);
                exec_replication();
            });
        },
        testing::ExitedWithCode(1), "failed to enable replication on '/acc/f1': -110 \\(");
}

} // namespace
