"""Live-stream clients for e2e_serve.sh: N event streams that log every value
of one unit with the time it arrived, a client that never reads and one that
goes away at once.

usage: serve_streams.py URL UNIT N LOG
Writes "ready" to LOG.ready once every stream has its snapshot; logs
"STREAM VALUE NANOSECONDS" lines to LOG; ends when LOG.stop appears."""
import json
import os
import socket
import sys
import threading
import time
import urllib.parse
import urllib.request

url, unit, count, log = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
out = open(log, "a", buffering=1)
lock = threading.Lock()
snapshots = threading.Semaphore(0)


def stream(n):
    event = None
    with urllib.request.urlopen(url + "/api/events", timeout=30) as r:
        for raw in r:
            line = raw.decode().rstrip("\n")
            if line.startswith("event: "):
                event = line[7:]
            elif line.startswith("data: ") and event in ("snapshot", "change"):
                for u in json.loads(line[6:])["units"]:
                    if u["name"] == unit and u["value"] is not None:
                        with lock:
                            out.write(f"{n} {u['value']} {time.time_ns()}\n")
                if event == "snapshot":
                    snapshots.release()
            if os.path.exists(log + ".stop"):
                return


def raw_request(path, read):
    host = urllib.parse.urlsplit(url)
    s = socket.create_connection((host.hostname, host.port))
    s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)
    s.sendall(f"GET {path} HTTP/1.1\r\nHost: {host.netloc}\r\n\r\n".encode())
    if read:
        s.recv(100)
    return s


threads = [threading.Thread(target=stream, args=(n,), daemon=True) for n in range(count)]
for t in threads:
    t.start()
slow = raw_request("/api/events", False)  # never reads
raw_request("/api/events", True).close()  # goes away after the first bytes
for _ in range(count):
    snapshots.acquire()
open(log + ".ready", "w").close()
while not os.path.exists(log + ".stop"):
    time.sleep(0.05)
slow.close()
