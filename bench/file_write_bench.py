#!/usr/bin/env python3
"""file_write and file_edit through the built host, next to cp + sync and one write + one fsync.

Usage: bench/file_write_bench.py <path of quay_tools_host> [scratch directory] [runs]
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

LAUNCH = '{"log":{"log_dir":"","log_level":0},"transport":null}'
EDIT_BYTES = 64 * 1024 * 1024
# The frame limit is 16 MiB for the whole request line, so inline content stays just below it.
WRITE_INLINE_BYTES = 16 * 1024 * 1024 - 4096
WRITE_LOCAL_BYTES = 16 * 1024 * 1024


class Host:
    def __init__(self, binary):
        self.process = subprocess.Popen([binary, "--brimo-stack-host-config", LAUNCH],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def call(self, method, params):
        # Encoded before the clock starts: the parent's own serialisation isn't the host's time.
        line = (json.dumps({"method": method, "params": params}) + "\n").encode()
        start = time.perf_counter()
        self.process.stdin.write(line)
        self.process.stdin.flush()
        answer = json.loads(self.process.stdout.readline())
        elapsed = time.perf_counter() - start
        if not answer.get("ok"):
            raise RuntimeError(answer)
        return elapsed

    def close(self):
        self.process.stdin.close()
        self.process.wait()


def write_and_fsync(path, data):
    start = time.perf_counter()
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    os.write(fd, data)
    os.fsync(fd)
    os.close(fd)
    return time.perf_counter() - start


def cp_and_sync(source, target):
    start = time.perf_counter()
    subprocess.run(["cp", source, target], check=True)
    subprocess.run(["sync", target], check=True)
    return time.perf_counter() - start


def best(samples):
    return min(samples) * 1000.0


def main():
    binary = sys.argv[1]
    scratch = tempfile.mkdtemp(dir=sys.argv[2] if len(sys.argv) > 2 else None)
    runs = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    try:
        line = b"value = compute(alpha, beta)  # a line of ordinary source text\n"
        edit_source = (line * (EDIT_BYTES // len(line) + 1))[:EDIT_BYTES]
        edited = edit_source.replace(b"value", b"VALUE")
        source_path = os.path.join(scratch, "source.txt")
        with open(source_path, "wb") as f:
            f.write(edit_source)
        inline = b"x" * WRITE_INLINE_BYTES
        local = os.path.join(scratch, "local.bin")
        with open(local, "wb") as f:
            f.write(b"y" * WRITE_LOCAL_BYTES)

        host = Host(binary)
        rows = {}
        target = os.path.join(scratch, "edit.txt")
        samples = []
        for _ in range(runs):
            with open(target, "wb") as f:
                f.write(edit_source)
            os.sync()
            samples.append(host.call("file_edit", {"path": target, "old_content": "value",
                                                   "new_content": "VALUE", "replace_all": True}))
        with open(target, "rb") as f:
            assert f.read() == edited
        rows["file_edit replace_all, 64 MiB"] = (
            best(samples),
            best([write_and_fsync(os.path.join(scratch, "w.bin"), edited) for _ in range(runs)]),
            best([cp_and_sync(source_path, os.path.join(scratch, "cp.bin")) for _ in range(runs)]))

        text = inline.decode()
        samples = [host.call("file_write", {"path": os.path.join(scratch, "inline.bin"), "content": text})
                   for _ in range(runs)]
        rows["file_write content, 16 MiB - 4 KiB"] = (
            best(samples),
            best([write_and_fsync(os.path.join(scratch, "w.bin"), inline) for _ in range(runs)]),
            None)
        # Source text, whose line feeds grow by their escapes in the frame: cut to fit it.
        source_text = edit_source[:WRITE_INLINE_BYTES - WRITE_INLINE_BYTES // len(line) - 4096]
        samples = [host.call("file_write", {"path": os.path.join(scratch, "source.bin"), "content": source_text.decode()})
                   for _ in range(runs)]
        rows[f"file_write content, {len(source_text) >> 20} MiB of source lines"] = (
            best(samples),
            best([write_and_fsync(os.path.join(scratch, "w.bin"), source_text) for _ in range(runs)]),
            None)
        samples = [host.call("file_write", {"path": os.path.join(scratch, "copy.bin"), "local_path": local})
                   for _ in range(runs)]
        rows["file_write local_path, 16 MiB"] = (
            best(samples),
            best([write_and_fsync(os.path.join(scratch, "w.bin"), b"y" * WRITE_LOCAL_BYTES) for _ in range(runs)]),
            best([cp_and_sync(local, os.path.join(scratch, "cp.bin")) for _ in range(runs)]))
        host.close()

        print("| case | host (ms) | one write + fsync (ms) | ratio | cp + sync (ms) |")
        print("|---|---|---|---|---|")
        for name, (host_ms, baseline_ms, cp_ms) in rows.items():
            cp_text = "-" if cp_ms is None else f"{cp_ms:.1f}"
            print(f"| {name} | {host_ms:.1f} | {baseline_ms:.1f} | {host_ms / baseline_ms:.2f} | {cp_text} |")
    finally:
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    main()
