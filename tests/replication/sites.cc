#include "sites.h"

#include "mox/errors.h"

#include <gtest/gtest.h>

Sites::Sites()
{
    a.mkdir("/acc");
    b.mkdir("/acc");
}

tarn_test::RunResult Sites::run(const std::vector<std::string> &ops, const ember_test::Sim &master,
                                const ember_test::Sim &slave, const std::string &slave_addr)
{
    std::vector<std::string> args = {"-c", "/nonexistent", "replication"};
    auto site = [&](const std::string &r, const std::string &addr, const std::string &uid,
                    const char *pem) {
        args.insert(args.end(), {"--" + r + "-addr", addr, "--" + r + "-uid", uid,
                                 "--" + r + "-cert", ember_test::pki_file(pem)});
    };
    site("master", master.addr(), master.uid(), "site-rsa.pem");
    site("slave", slave_addr.empty() ? slave.addr() : slave_addr, slave.uid(), "web-ec.pem");
    args.insert(args.end(), ops.begin(), ops.end());
    tarn_test::RunOptions opts;
    opts.env = {"SSL_CERT_FILE=" + ember_test::pki_file("ca.pem")};
    return tarn_test::run_tool(args, opts);
}

void Sites::enable(const std::vector<std::string> &files)
{
    for (const auto &f : files)
        a.write(f);
    auto r = run({"--enable", "/acc"});
    ASSERT_EQ(r.status, 0) << r.err;
}

void run_case(const OpCase &c)
{
    SCOPED_TRACE(c.what);
    Sites s;
    c.prepare(s);
    auto r = s.run(c.ops);
    EXPECT_EQ(r.status, c.status) << r.err;
    std::string want = c.err(s);
    if (want.empty())
        EXPECT_EQ(r.err, "");
    else
        EXPECT_NE(r.err.find(want), std::string::npos) << "want: " << want << "\ngot: " << r.err;
    if (c.check)
        c.check(s);
}

boost::json::object Sites::dump(const ember_test::Sim &s)
{
    boost::json::value v = boost::json::parse(s.dump());
    return v.is_object() ? v.as_object() : boost::json::object();
}

std::string Sites::secret(const ember_test::Sim &s)
{
    boost::json::object state = dump(s);
    const boost::json::value *v = state.at("secrets").as_object().if_contains("acc");
    const boost::json::value *text = v ? v->as_object().if_contains("1") : nullptr;
    return text ? std::string(text->as_string()) : "";
}

std::string err(int rc)
{
    return std::to_string(rc) + " (" + mox_strerror(-rc) + ")";
}
