#include "sites.h"

#include "mox/errors.h"

#include <boost/json.hpp>
#include <cstring>
#include <gtest/gtest.h>

namespace json = boost::json;
using ember_test::Sim;

namespace
{

json::object dump(const Sim &s)
{
    json::value v = json::parse(s.dump());
    return v.is_object() ? v.as_object() : json::object();
}

std::string secret(const Sim &s)
{
    json::object state = dump(s);
    const json::value *v = state.at("secrets").as_object().if_contains("acc");
    const json::value *text = v ? v->as_object().if_contains("1") : nullptr;
    return text ? std::string(text->as_string()) : "";
}

std::string replica(const Sim &s, const std::string &path)
{
    json::object state = dump(s);
    const json::value *r = state.at("replicas").as_object().if_contains(path);
    if (!r || !r->as_object().at("enabled").as_bool())
        return "";
    const json::object &o = r->as_object();
    return std::string(o.at("is_master").as_bool() ? "master " : "replica ") +
           std::string(o.at("peer_uid").as_string());
}

void replace(std::string &s, const std::string &key, const std::string &value)
{
    for (size_t i = 0; (i = s.find(key, i)) != std::string::npos; i += value.size())
        s.replace(i, key.size(), value);
}

std::string word(std::string &line)
{
    size_t sp = line.find(' ');
    std::string w = line.substr(0, sp);
    line = sp == std::string::npos ? "" : line.substr(sp + 1);
    return w;
}

std::vector<std::string> words(std::string line)
{
    std::vector<std::string> out;
    while (!line.empty())
        out.push_back(word(line));
    return out;
}

} // namespace

Sites::Sites()
{
    a.mkdir("/acc");
    b.mkdir("/acc");
}

tarn_test::RunResult Sites::run(const std::vector<std::string> &ops, const Sim &master,
                                const Sim &slave)
{
    std::vector<std::string> args = {"-c", "/nonexistent", "replication"};
    auto site = [&](const std::string &r, const std::string &addr, const std::string &uid,
                    const char *pem) {
        args.insert(args.end(), {"--" + r + "-addr", addr, "--" + r + "-uid", uid,
                                 "--" + r + "-cert", ember_test::pki_file(pem)});
    };
    site("master", master.addr(), master.uid(), "site-rsa.pem");
    site("slave", &slave == &b && !slave_addr.empty() ? slave_addr : slave.addr(), slave.uid(),
         "web-ec.pem");
    args.insert(args.end(), ops.begin(), ops.end());
    tarn_test::RunOptions opts;
    opts.env = {"SSL_CERT_FILE=" + ember_test::pki_file("ca.pem")};
    return tarn_test::run_tool(args, opts);
}

// Steps: "files" (f1, f2 and sub/f3 on the master), "enable" (files, then
// enable), "mkdir|write|rm a|b PATH", "fault a|b JSON", "tool OPS...",
// "note" (keep the master's secret), "slave-down" (the tool reaches no
// slave), "third slave|master|secret UID": a third site UID becomes the
// slave of the master's files, the master of "/acc/c1" on the slave (and the
// master joins the slave again, so the secrets agree), or only gives the
// slave a secret of its own.
void Sites::step(const std::string &text)
{
    std::string line = text, verb = word(line);
    if (verb == "files" || verb == "enable") {
        a.mkdir("/acc/sub");
        for (const char *f : {"/acc/f1", "/acc/f2", "/acc/sub/f3"})
            a.write(f);
        if (verb == "enable")
            step("tool --enable /acc");
        return;
    }
    if (verb == "tool") {
        auto r = run(words(line));
        ASSERT_EQ(r.status, 0) << text << ": " << r.err;
        return;
    }
    if (verb == "note" || verb == "slave-down") {
        (verb == "note" ? note : slave_addr) = verb == "note" ? secret(a) : "127.0.0.1:1";
        return;
    }
    std::string which = word(line);
    const Sim &sim = which == "b" ? b : a;
    if (verb == "third") {
        Sim c(line);
        c.mkdir("/acc");
        c.write("/acc/c1");
        const Sim &master = which == "slave" ? a : c;
        ASSERT_EQ(run({"--enable", "/acc"}, master, which == "slave" ? c : b).status, 0);
        if (which == "master")
            step("tool --join-slave /acc");
    } else if (verb == "mkdir") {
        sim.mkdir(line);
    } else if (verb == "write") {
        sim.write(line);
    } else if (verb == "rm") {
        ASSERT_EQ(system(("rm -r " + sim.data() + line).c_str()), 0);
    } else if (verb == "fault") {
        sim.fault(line);
    } else {
        FAIL() << "unknown step " << text;
    }
}

std::string Sites::query(const std::string &what)
{
    std::string line = what, verb = word(line), which = word(line);
    const Sim &sim = which == "b" ? b : a;
    if (verb == "secret")
        return secret(sim);
    if (verb == "secret-len")
        return std::to_string(secret(sim).size());
    if (verb == "replicas")
        return std::to_string(dump(sim).at("replicas").as_object().size());
    return replica(sim, line);
}

std::string Sites::expand(std::string text)
{
    replace(text, "@SA", secret(a));
    replace(text, "@SB", secret(b));
    replace(text, "@NOTE", note);
    replace(text, "@A", a.addr());
    replace(text, "@B", b.addr());
    for (size_t i; (i = text.find("@E")) != std::string::npos;)
        text.replace(i, 4, strerror(std::stoi(text.substr(i + 2, 2))));
    return text;
}

void run_scenario(const Scenario &sc)
{
    SCOPED_TRACE(sc.what);
    Sites s;
    std::string steps = sc.steps;
    for (size_t i; !steps.empty(); steps = i == std::string::npos ? "" : steps.substr(i + 2)) {
        i = steps.find("; ");
        s.step(steps.substr(0, i));
    }
    auto r = s.run(sc.ops);
    EXPECT_EQ(r.status, sc.status) << r.err;
    std::string want = s.expand(sc.err);
    if (want.empty())
        EXPECT_EQ(r.err, "");
    else
        EXPECT_NE(r.err.find(want), std::string::npos) << "want: " << want << "\ngot: " << r.err;
    for (const auto &[what, value] : sc.expect)
        EXPECT_EQ(s.query(what), s.expand(value)) << what;
}
