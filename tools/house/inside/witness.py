"""What happens in the house, noted with its time: CLOCK_MONOTONIC, in seconds, as the cards have it."""
import json
import threading
import time

_lock = threading.Lock()
_file = None


def begin(path):
    global _file
    _file = open(path, "w", buffering=1, encoding="utf-8")


def now():
    return time.clock_gettime(time.CLOCK_MONOTONIC)


def note(kind, **what):
    with _lock:
        _file.write(json.dumps({"at": round(now(), 6), "kind": kind, **what}, ensure_ascii=False) + "\n")
