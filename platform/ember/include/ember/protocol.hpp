// The gateway protocol shared by the client library and the gateway
// simulator: request paths, JSON field names, access mask bits, the mapping
// between HTTP statuses and the runtime's error codes, base64url, and how
// names that are not UTF-8 travel.
// docs/gateway-protocol.md describes the same protocol in prose.
#pragma once

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace ember_proto
{

// 443 is taken by the gateway's agent-facing service.
inline constexpr uint16_t default_port = 8443;

// Every request is "POST <path>" with a JSON object body.
inline constexpr const char *op_secret_get = "/v1/trust-secret/get";
inline constexpr const char *op_secret_set = "/v1/trust-secret/set";
inline constexpr const char *op_pull_configure = "/v1/pull/configure";
inline constexpr const char *op_pull_ondemand = "/v1/pull/ondemand-only";
inline constexpr const char *op_repl_enable = "/v1/file/replication/enable";
inline constexpr const char *op_repl_disable = "/v1/file/replication/disable";
inline constexpr const char *op_repl_detach = "/v1/file/replication/detach";
inline constexpr const char *op_repl_switch = "/v1/file/replication/switch-to-slave";
inline constexpr const char *op_repl_join = "/v1/file/replication/join-slave";
inline constexpr const char *op_file_state = "/v1/file/state";
inline constexpr const char *op_file_open = "/v1/file/open";
inline constexpr const char *op_file_close = "/v1/file/close";
inline constexpr const char *op_dir_stat = "/v1/dir/stat";
inline constexpr const char *op_dir_list = "/v1/dir/list";
// Gateway to gateway, authenticated with the account's kind-1 secret.
inline constexpr const char *op_peer_replica = "/v1/peer/replica";
// Gateway to gateway, authenticated with the source account's kind-2 secret:
// the destination of a pull reads the account's tree and may then remove it.
inline constexpr const char *op_peer_pull_list = "/v1/peer/pull/list";
inline constexpr const char *op_peer_pull_read = "/v1/peer/pull/read";
inline constexpr const char *op_peer_pull_remove = "/v1/peer/pull/remove";
// Test-only endpoints of the simulator.
inline constexpr const char *op_test_dump = "/v1/test/dump";
inline constexpr const char *op_test_fault = "/v1/test/fault";
inline constexpr const char *op_test_pull_run = "/v1/test/pull-run";

// Header of peer requests: hex HMAC-SHA256 of the body under the secret.
inline constexpr const char *hdr_peer_mac = "X-Tarn-Peer-Mac";
inline constexpr const char *hdr_ident = "X-Tarn-Ident";

// Access mask bits of a grant. Every request needs `access_session`.
enum access_bits : uint32_t {
    access_session = 1, // may talk to the gateway at all
    access_read = 2,    // list directories, read file state, open files, query secrets
    access_replica = 4, // replication calls, kind-1 (replication) secrets
    access_account = 8, // pull configuration, on-demand flag, kind-2 (pull) secrets
};

// Trust secret kinds.
inline constexpr int secret_kind_replication = 1;
inline constexpr int secret_kind_pull = 2;

// Allowed protocol bits of ember_client_set_allowed_protos.
inline constexpr int proto_tls12 = 1;
inline constexpr int proto_tls13 = 2;

// Entries per listing page unless the request asks for fewer.
inline constexpr uint32_t list_page_max = 1000;

// File data per peer request: base64url makes it 683 KiB, under the
// gateway's 1 MiB limit on a request body.
inline constexpr uint32_t peer_chunk_max = 512 * 1024;

// The gateway answers a larger request body with 413 and a larger request
// head with 431, then closes the connection.
inline constexpr uint32_t request_body_max = 1024 * 1024;
inline constexpr uint32_t request_header_max = 8 * 1024;

// Bits of the pull configuration's flags.
inline constexpr int pull_flag_remove_source = 1; // remove the source account when done
inline constexpr int pull_flag_trust = 4;         // fetch through peer requests

// Runtime error codes (positive) used on the wire.
enum wire_err : int {
    err_perm = 1,
    err_noent = 8,
    err_notdir = 9,
    err_malformed = 29,
    err_inval = 30,
    err_auth = 61,
    err_exist = 70,
    err_io = 80,
    err_timedout = 110,
};

// The HTTP status that carries a runtime error code (positive; 0 is 200).
inline unsigned status_for_err(int code)
{
    switch (code) {
    case 0:
        return 200;
    case err_inval:
    case err_malformed:
        return 400;
    case err_auth:
        return 401;
    case err_perm:
        return 403;
    case err_noent:
    case err_notdir:
        return 404;
    case err_exist:
        return 409;
    default:
        return 500;
    }
}

// The runtime error code (positive) of a status, for answers without an
// "error" field in their body.
inline int err_for_status(unsigned status)
{
    switch (status) {
    case 200:
        return 0;
    case 400:
        return err_inval;
    case 401:
        return err_auth;
    case 403:
        return err_perm;
    case 404:
        return err_noent;
    case 409:
        return err_exist;
    default:
        return err_io;
    }
}

// Splits "host[:port]" (a name, IPv4, or bracketed IPv6; the default port
// when absent); false for a malformed address.
inline bool parse_address(const char *address, std::string &host, uint16_t &port)
{
    if (!address || !*address)
        return false;
    std::string a(address);
    std::string port_text;
    if (a[0] == '[') {
        size_t close = a.find(']');
        if (close == std::string::npos || close == 1)
            return false;
        host = a.substr(1, close - 1);
        if (host.find(':') == std::string::npos)
            return false;
        if (close + 1 < a.size()) {
            if (a[close + 1] != ':')
                return false;
            port_text = a.substr(close + 2);
            if (port_text.empty())
                return false;
        }
    } else {
        size_t colon = a.find(':');
        host = a.substr(0, colon);
        if (colon != std::string::npos) {
            port_text = a.substr(colon + 1);
            if (port_text.empty() || port_text.find(':') != std::string::npos)
                return false;
        }
        if (host.empty())
            return false;
        for (char ch : host)
            if (!std::isalnum(static_cast<unsigned char>(ch)) && ch != '.' && ch != '-' &&
                ch != '_')
                return false;
    }
    port = default_port;
    if (!port_text.empty()) {
        if (port_text.size() > 5 || port_text.find_first_not_of("0123456789") != std::string::npos)
            return false;
        long p = std::strtol(port_text.c_str(), nullptr, 10);
        if (p < 1 || p > 65535)
            return false;
        port = static_cast<uint16_t>(p);
    }
    return true;
}

inline std::string base64url_encode(std::string_view in)
{
    static const char tab[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string out;
    out.reserve((in.size() + 2) / 3 * 4);
    uint32_t acc = 0;
    int bits = 0;
    for (unsigned char c : in) {
        acc = (acc << 8) | c;
        bits += 8;
        while (bits >= 6) {
            bits -= 6;
            out.push_back(tab[(acc >> bits) & 63]);
        }
    }
    if (bits > 0)
        out.push_back(tab[(acc << (6 - bits)) & 63]);
    return out;
}

// False on a character outside the alphabet or an impossible length.
inline bool base64url_decode(std::string_view in, std::string &out)
{
    out.clear();
    out.reserve(in.size() / 4 * 3 + 2);
    uint32_t acc = 0;
    int bits = 0;
    for (char c : in) {
        int v;
        if (c >= 'A' && c <= 'Z')
            v = c - 'A';
        else if (c >= 'a' && c <= 'z')
            v = c - 'a' + 26;
        else if (c >= '0' && c <= '9')
            v = c - '0' + 52;
        else if (c == '-')
            v = 62;
        else if (c == '_')
            v = 63;
        else
            return false;
        acc = (acc << 6) | static_cast<uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((acc >> bits) & 0xff));
        }
    }
    return bits < 6;
}

// True when `s` is well-formed UTF-8 (no overlong forms, surrogates or code
// points above U+10FFFF): exactly the text a JSON parser accepts.
inline bool utf8_valid(std::string_view s)
{
    size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        size_t len = 1;
        unsigned char lo = 0x80, hi = 0xbf; // range of the second byte
        if (c < 0x80) {
            i++;
            continue;
        } else if (c >= 0xc2 && c <= 0xdf) {
            len = 2;
        } else if (c >= 0xe0 && c <= 0xef) {
            len = 3;
            lo = c == 0xe0 ? 0xa0 : 0x80;
            hi = c == 0xed ? 0x9f : 0xbf;
        } else if (c >= 0xf0 && c <= 0xf4) {
            len = 4;
            lo = c == 0xf0 ? 0x90 : 0x80;
            hi = c == 0xf4 ? 0x8f : 0xbf;
        } else {
            return false;
        }
        if (s.size() - i < len)
            return false;
        auto c1 = static_cast<unsigned char>(s[i + 1]);
        if (c1 < lo || c1 > hi)
            return false;
        for (size_t k = 2; k < len; k++)
            if ((static_cast<unsigned char>(s[i + k]) & 0xc0) != 0x80)
                return false;
        i += len;
    }
    return true;
}

// File names are bytes, JSON texts are UTF-8: a field that carries a name
// or path is sent as `key` when its bytes are valid UTF-8 and otherwise,
// and only then, as `key` + "_b64" holding the bytes in base64url.
inline constexpr std::string_view name_b64_suffix = "_b64";

// Puts the name `bytes` into the JSON object `o` (boost::json::object) by
// the rule above.
template <class Object> void put_name(Object &o, std::string_view key, std::string_view bytes)
{
    if (utf8_valid(bytes)) {
        o[key].emplace_string().assign(bytes.data(), bytes.size());
        return;
    }
    std::string k(key);
    k += name_b64_suffix;
    o[k].emplace_string() = base64url_encode(bytes);
}

// Reads the name `key` of `o`: 1 and its bytes in `out`; 0 when the object
// holds neither form; -1 when malformed (both forms, not a text, not
// base64url, or a base64url form of valid UTF-8).
template <class Object> int get_name(const Object &o, std::string_view key, std::string &out)
{
    std::string k(key);
    k += name_b64_suffix;
    const auto *plain = o.if_contains(key);
    const auto *coded = o.if_contains(k);
    out.clear();
    if (plain && coded)
        return -1;
    if (plain) {
        const auto *s = plain->if_string();
        if (!s)
            return -1;
        out.assign(s->data(), s->size());
        return 1;
    }
    if (!coded)
        return 0;
    const auto *s = coded->if_string();
    if (!s || !base64url_decode(std::string_view(s->data(), s->size()), out) || utf8_valid(out)) {
        out.clear();
        return -1;
    }
    return 1;
}

} // namespace ember_proto
