#!/usr/bin/env python3
"""Prints a gateway simulator's state dump (JSON on standard input) as
readable tables: trust secrets, pulls, on-demand flags and replica states."""
import json
import sys


def table(title, header, rows):
    print("%s:" % title)
    if not rows:
        print("  (none)")
        return
    widths = [max(len(str(r[i])) for r in rows + [header]) for i in range(len(header))]
    for r in [header] + rows:
        print("  " + "  ".join(str(v).ljust(w) for v, w in zip(r, widths)).rstrip())


def main():
    d = json.load(sys.stdin)
    kinds = {"1": "replication", "2": "pull"}
    table("secrets", ["account", "kind", "secret"],
          [[a, kinds.get(k, k), s] for a, ks in sorted(d["secrets"].items())
           for k, s in sorted(ks.items())])
    table("pulls", ["account", "from", "source account", "flags", "status"],
          [[a, p.get("src", ""), p.get("src_account", ""), p.get("flags", ""), p.get("status", "")]
           for a, p in sorted(d["pulls"].items())])
    table("on-demand only", ["account", "value"], sorted([a, v] for a, v in d["ondemand"].items()))
    table("replicas", ["file", "enabled", "master", "peer"],
          [[f, int(r["enabled"]), int(r["is_master"]), r["peer_uid"]]
           for f, r in sorted(d["replicas"].items())])


if __name__ == "__main__":
    main()
