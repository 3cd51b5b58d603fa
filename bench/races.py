#!/usr/bin/env python3
"""Race trials against the real server on 127.0.0.1, with counts.

launch:   four clients each send LAUNCH_REQUESTS `POST /api/channels/beta/launch` at once (bodies of
          different sizes, so two documents run together cannot parse), while a poller reads
          `channels/beta.json` from disk as fast as it can. Passes when every poll parsed, the file
          never went missing, and afterwards `GET /api/channels/beta` answers one whole document.
finalize: FINALIZE_ROUNDS times, a build holds `a.bin` of 1 byte; a re-upload of 200,000 bytes
          and the finalize are sent at once. Passes when every round's file on disk has the size
          its manifest lists, and the upload was either listed (200) or refused (409).
kill:     the server is killed (SIGKILL) while two uploads stream, one to a new build; after a
          restart no partial body is left and the new build does not exist.

Usage: bench/races.py [launch|finalize|kill ...]   (default: all three)
Environment: QUILL_BIN (default build-a/quillmoord), LAUNCH_ROUNDS=3, LAUNCH_REQUESTS=1500,
FINALIZE_ROUNDS=400. Exits 1 when a trial fails.
"""

import http.client
import json
import multiprocessing
import os
import re
import socket
import subprocess
import sys
import tempfile
import threading
import time

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
QUILL = os.environ.get("QUILL_BIN", os.path.join(REPO, "build-a", "quillmoord"))
LAUNCH_ROUNDS = int(os.environ.get("LAUNCH_ROUNDS", "3"))
LAUNCH_REQUESTS = int(os.environ.get("LAUNCH_REQUESTS", "1500"))
FINALIZE_ROUNDS = int(os.environ.get("FINALIZE_ROUNDS", "400"))
CLIENTS = 4


def offline(data, *words):
    done = subprocess.run([QUILL, *words, "--data-dir", data], capture_output=True, text=True,
                          check=True)
    return done.stdout


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Server:
    def __init__(self, data):
        self.data = data
        self.port = free_port()
        self.log = open(os.path.join(os.path.dirname(data), "server.log"), "ab")
        self.start()

    def start(self):
        data = self.data
        self.proc = subprocess.Popen(
            [QUILL, "--data-dir", data, "--bind", "127.0.0.1", "--port", str(self.port)],
            stdout=self.log, stderr=subprocess.STDOUT)
        for _ in range(300):
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
                return
            except OSError:
                if self.proc.poll() is not None:
                    raise SystemExit("races: the server exited at start-up")
                time.sleep(0.1)
        raise SystemExit("races: the server did not start")

    def stop(self):
        self.proc.terminate()
        self.proc.wait(timeout=10)
        self.log.close()


class Client:
    """One keep-alive connection with the admin token."""

    def __init__(self, port, token):
        self.conn = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
        self.auth = {"Authorization": "Bearer " + token}

    def send(self, method, path, body=b""):
        self.conn.request(method, path, body=body, headers=self.auth)
        res = self.conn.getresponse()
        return res.status, res.read()


def launch_body(client):
    # Client n sends n+1 targets with labels of different lengths.
    targets = [{"label": "client %d target %d %s" % (client, i, "x" * (20 * client)),
                "exe": "bin/game%d.exe" % i, "args": "--run %d" % i, "primary": i == 0}
               for i in range(client + 1)]
    return json.dumps({"launch_targets": targets}).encode()


def launch_client(port, token, client, requests, statuses):
    c = Client(port, token)
    body = launch_body(client)
    bad = 0
    for _ in range(requests):
        status, _ = c.send("POST", "/api/channels/beta/launch", body)
        bad += status != 200
    statuses.put(bad)


def poll_file(path, stop, counts):
    reads = torn = missing = 0
    while not stop.is_set():
        reads += 1
        try:
            with open(path, "rb") as f:
                text = f.read()
        except FileNotFoundError:
            missing += 1
            continue
        try:
            json.loads(text)
        except ValueError:
            torn += 1
    counts.put((reads, torn, missing))


def launch_trial(port, token, data):
    admin = Client(port, token)
    status, _ = admin.send("POST", "/api/channels/beta")
    if status not in (200, 409):
        raise SystemExit("races: could not create the channel (%d)" % status)
    expected = [json.loads(launch_body(n))["launch_targets"] for n in range(CLIENTS)]
    failures = 0
    for round_ in range(1, LAUNCH_ROUNDS + 1):
        statuses, counts = multiprocessing.Queue(), multiprocessing.Queue()
        stop = multiprocessing.Event()
        poller = multiprocessing.Process(
            target=poll_file, args=(os.path.join(data, "channels", "beta.json"), stop, counts))
        poller.start()
        started = time.monotonic()
        clients = [multiprocessing.Process(target=launch_client,
                                           args=(port, token, n, LAUNCH_REQUESTS, statuses))
                   for n in range(CLIENTS)]
        for p in clients:
            p.start()
        for p in clients:
            p.join()
        elapsed = time.monotonic() - started
        stop.set()
        reads, torn, missing = counts.get()
        poller.join()
        refused = sum(statuses.get() for _ in clients)
        status, body = admin.send("GET", "/api/channels/beta")
        whole = status == 200 and json.loads(body).get("launch_targets") in expected
        ok = whole and torn == 0 and missing == 0 and refused == 0
        failures += not ok
        print("launch round %d: %d requests in %.1f s (%.0f/s), %d not 200; poller read the file "
              "%d times: %d unparsable, %d missing; GET /api/channels/beta %d %s -> %s"
              % (round_, CLIENTS * LAUNCH_REQUESTS, elapsed, CLIENTS * LAUNCH_REQUESTS / elapsed,
                 refused, reads, torn, missing, status, "whole" if whole else "NOT WHOLE",
                 "PASS" if ok else "FAIL"), flush=True)
    return failures


def finalize_trial(port, token, data):
    uploader, finalizer = Client(port, token), Client(port, token)
    big = os.urandom(200000)
    landed = refused = mismatched = other = 0
    started = time.monotonic()
    for round_ in range(FINALIZE_ROUNDS):
        build = "race-%d" % round_
        files = "/api/builds/%s/files?path=a.bin" % build
        if uploader.send("PUT", files, b"1")[0] != 200:
            raise SystemExit("races: the first upload failed")
        results = {}
        t = threading.Thread(target=lambda: results.update(up=uploader.send("PUT", files, big)))
        t.start()
        fin_status, fin_body = finalizer.send("POST", "/api/builds/%s/finalize" % build)
        t.join()
        up_status = results["up"][0]
        if fin_status != 200:
            other += 1
            continue
        listed = json.loads(fin_body)["files"][0]["size"]
        stored = os.path.getsize(os.path.join(data, "builds", build, "files", "a.bin"))
        mismatched += listed != stored
        if up_status == 200:
            landed += 1
            mismatched += listed != len(big)  # an accepted upload must be in the manifest
        elif up_status == 409:
            refused += 1
        else:
            other += 1
    ok = mismatched == 0 and other == 0
    print("finalize race: %d rounds in %.1f s: upload listed %d, refused 409 %d, other answers %d; "
          "file unlike its manifest: %d -> %s"
          % (FINALIZE_ROUNDS, time.monotonic() - started, landed, refused, other, mismatched,
             "PASS" if ok else "FAIL"), flush=True)
    return 0 if ok else 1


def kill_trial(server, token, data):
    """Kills the server in the middle of uploads to a new and to an existing build, restarts it,
    and checks that the partial bodies are gone and no build came of them."""
    admin = Client(server.port, token)
    if admin.send("PUT", "/api/builds/kept/files?path=a.bin", b"kept")[0] != 200:
        raise SystemExit("races: the first upload failed")
    socks = []
    for build in ("kept", "never"):
        s = socket.create_connection(("127.0.0.1", server.port))
        s.sendall(("PUT /api/builds/%s/files?path=big.bin HTTP/1.1\r\nHost: x\r\n"
                   "Authorization: Bearer %s\r\nContent-Length: %d\r\n\r\n"
                   % (build, token, 50 << 20)).encode())
        s.sendall(os.urandom(1 << 20))
        socks.append(s)
    staging = os.path.join(data, "builds", "~incoming")
    for _ in range(100):
        if os.path.isdir(staging) and len(os.listdir(staging)) == 2:
            break
        time.sleep(0.05)
    partial = len(os.listdir(staging)) if os.path.isdir(staging) else 0
    server.proc.kill()
    server.proc.wait()
    for s in socks:
        s.close()
    server.start()
    left = os.listdir(staging) if os.path.isdir(staging) else []
    status, body = Client(server.port, token).send("GET", "/api/builds/kept/files?path=a.bin")
    ok = (partial == 2 and not left and not os.path.exists(os.path.join(data, "builds", "never"))
          and status == 200 and body == b"kept")
    print("kill during uploads: %d partial bodies before the kill, %d left after the restart; "
          "new build %s; earlier file %s -> %s"
          % (partial, len(left),
             "absent" if not os.path.exists(os.path.join(data, "builds", "never")) else "PRESENT",
             "kept" if status == 200 and body == b"kept" else "LOST", "PASS" if ok else "FAIL"),
          flush=True)
    return 0 if ok else 1


def main():
    trials = sys.argv[1:] or ["launch", "finalize", "kill"]
    if not os.access(QUILL, os.X_OK):
        raise SystemExit("races: no quillmoord binary at %s (set QUILL_BIN)" % QUILL)
    with tempfile.TemporaryDirectory(prefix="races.") as work:
        data = os.path.join(work, "data")
        offline(data, "user", "create", "ci", "--role", "admin")
        minted = offline(data, "token", "create", "ci", "--user", "ci")
        token = re.search(r"\b[A-Za-z0-9]{48}\b", minted).group(0)
        server = Server(data)
        try:
            failures = 0
            if "launch" in trials:
                failures += launch_trial(server.port, token, data)
            if "finalize" in trials:
                failures += finalize_trial(server.port, token, data)
            if "kill" in trials:
                failures += kill_trial(server, token, data)
        finally:
            server.stop()
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
