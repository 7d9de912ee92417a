"""The first process of the house's machine: what a system needs, then the house, then its papers."""
import ctypes
import fcntl
import os
import pathlib
import struct
import sys
import tarfile
import time
import traceback

LIBC = ctypes.CDLL(None, use_errno=True)
MOUNTS = [("proc", "/proc", "proc", ""), ("sys", "/sys", "sysfs", ""), ("dev", "/dev", "devtmpfs", ""),
          ("run", "/run", "tmpfs", ""), ("tmp", "/tmp", "tmpfs", ""), ("house", "/house", "tmpfs", "size=80%"),
          ("tracefs", "/sys/kernel/tracing", "tracefs", "")]
FINIT_MODULE = 313
POWER_OFF = 0x4321FEDC
ADD_ENTROPY = 0x40085203  # RNDADDENTROPY
PAPERS = "/dev/pmem0"
DISK = ("/dev/pmem1", "/disk", "ext4", "")


def mount(what, where, kind, options):
    pathlib.Path(where).mkdir(parents=True, exist_ok=True)
    if LIBC.mount(what.encode(), where.encode(), kind.encode(), 0, options.encode()) != 0:
        raise OSError(ctypes.get_errno(), f"mount {where}")


def load_modules():
    for path in sorted(pathlib.Path("/modules").iterdir()):
        with open(path, "rb") as file:
            if LIBC.syscall(FINIT_MODULE, file.fileno(), b"", 0) != 0:
                raise OSError(ctypes.get_errno(), f"module {path.name}")


def add_entropy(seed):
    """The kernel's chance is the house's number's; else it waits for its own."""
    drops = (str(seed).encode() * 64)[:64]
    with open("/dev/random", "wb") as file:
        fcntl.ioctl(file, ADD_ENTROPY, struct.pack("ii", len(drops) * 8, len(drops)) + drops)


def hand_over():
    """Everything in /house to who has the machine, in one archive."""
    with open(PAPERS, "r+b") as device, tarfile.open(fileobj=device, mode="w|", format=tarfile.GNU_FORMAT,
                                                     bufsize=1 << 20) as archive:
        for path in sorted(pathlib.Path("/house").rglob("*")):
            if path.is_file():
                archive.add(path, str(path)[1:], recursive=False)
        archive.close()
        device.flush()
        os.fsync(device.fileno())  # nothing but this: the disk stays as it lies


def cut_power():
    """Nothing more is written."""
    pathlib.Path("/proc/sysrq-trigger").write_text("b")


def main():
    is_cut = False
    try:
        for each in MOUNTS:
            mount(*each)
        load_modules()
        mount(*DISK)
        os.environ.update(PATH="/usr/sbin:/usr/bin:/sbin:/bin:/nuvio/bin", HOME="/root", LD_LIBRARY_PATH="/nuvio/lib")
        import rooms
        add_entropy(rooms.plan()["seed"])
        rooms.begin_trace()
        import director
        until, leaves = pathlib.Path(PAPERS).open("rb").read(15).decode().split()
        director.run(rooms.plan(), int(until) / 1000, leaves)
        is_cut = "cut" in rooms.plan()
    except BaseException:
        traceback.print_exc()
    try:
        hand_over()
        print(f"house: {time.clock_gettime(time.CLOCK_MONOTONIC):.3f} s")
    except BaseException:
        traceback.print_exc()
    sys.stdout.flush()
    sys.stderr.flush()
    if is_cut:
        cut_power()
    LIBC.reboot(POWER_OFF)
