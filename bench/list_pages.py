#!/usr/bin/env python3
"""Reads a directory of a gateway simulator page by page over one kept-alive
HTTPS connection, as the directory handle does, and prints the time: the
yardstick for the client library's listing.

    list_pages.py ADDR PATH CA PEM [ms]

With "ms", prints only the wall time in milliseconds.
"""
import http.client
import json
import ssl
import sys
import time


def main():
    addr, path, ca, pem = sys.argv[1:5]
    host, port = addr.rsplit(":", 1)
    ctx = ssl.create_default_context(cafile=ca)
    ctx.load_cert_chain(pem)
    conn = http.client.HTTPSConnection(host, int(port), context=ctx)
    headers = {"Content-Type": "application/json"}
    start = time.perf_counter()
    req = {"path": path, "limit": 1000}
    n = 0
    while True:
        conn.request("POST", "/v1/dir/list", json.dumps(req), headers)
        page = json.loads(conn.getresponse().read())
        if page.get("error"):
            sys.exit("listing failed: %s" % page)
        for e in page["entries"]:
            n += 1
        if not page["more"]:
            break
        req = {"path": path, "limit": 1000, "listing": page["listing"], "offset": n}
    wall = (time.perf_counter() - start) * 1000
    if sys.argv[5:6] == ["ms"]:
        print("%.1f" % wall)
        return
    print("%-28s %8d in %8.1f ms: %9.0f /s" % ("python loop, same pages", n, wall, n * 1000 / wall))


if __name__ == "__main__":
    main()
