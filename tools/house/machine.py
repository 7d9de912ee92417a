"""The machine that a house stands in: one emulated processor whose time is its own instructions, so that
what happens in it depends on nothing outside."""
import datetime
import os
import pathlib
import subprocess
import tarfile

NS_PER_INSTRUCTION_LOG2 = 1
# Nobody wants the record, but how it comes about. While the processor has nothing to do the clock goes on to the next
# timer; it is said to have nothing to do a moment before its last instructions are counted, and there qemu's two
# threads met by chance. Where it records, the one that moves the clock waits for the one that counts.
COUNTED = f"shift={NS_PER_INSTRUCTION_LOG2},sleep=off,rr=record,rrfile=/dev/null"
MEMORY = "1536M"
PAPERS = 512 << 20  # bytes, at most
DISK = 96 << 20     # bytes: what is kept when the power is cut
BEGIN = datetime.datetime(2026, 1, 1)
DISK_ID = "00000000-0000-4000-8000-000000000001"
COMMAND_LINE = ("console=ttyS0 quiet random.trust_cpu=off random.trust_bootloader=off nokaslr mitigations=off "
                "panic=-1 rdinit=/init PYTHONHASHSEED=0")
NEVER = 99999  # s
LEAVES = {"nothing": "-----", "cores": "cores", "trace": "trace"}


def make_disk(path):
    """The same one each time."""
    with open(path, "wb") as file:
        file.truncate(DISK)
    subprocess.run(["mkfs.ext4", "-q", "-F", "-U", DISK_ID, "-E", f"hash_seed={DISK_ID}", path], check=True,
                   env=os.environ | {"E2FSPROGS_FAKE_TIME": str(int(BEGIN.timestamp()))})


def command(folder, kernel, initrd, disk, seed, since):
    begin = BEGIN + datetime.timedelta(seconds=since)
    return ["setpriv", "--pdeathsig", "KILL",  # it ends with who has it run
            "qemu-system-x86_64", "-machine", "q35,nvdimm=on", "-accel", "tcg", "-cpu", "max,-rdrand,-rdseed",
            "-smp", "1", "-m", f"{MEMORY},slots=2,maxmem=4G",
            "-icount", COUNTED, "-rtc", f"base={begin.isoformat()},clock=vm",
            "-seed", str(seed), "-net", "none", "-nodefaults", "-no-user-config", "-display", "none", "-no-reboot",
            "-serial", f"file:{folder}/console",
            "-object", f"memory-backend-file,id=papers,share=on,mem-path={folder}/papers,size={PAPERS}",
            "-device", "nvdimm,memdev=papers,id=nv0",
            "-object", f"memory-backend-file,id=disk,share=on,mem-path={disk},size={DISK}",
            "-device", "nvdimm,memdev=disk,id=nv1", "-kernel", str(kernel), "-initrd", str(initrd),
            "-append", COMMAND_LINE]


def run(folder, kernel, initrd, disk, seed, limit, since=0, until=NEVER, leaves="nothing"):
    """Lets the machine run until it is off; what it leaves, unpacked into the folder. The disk in it is as it was;
    `since`: seconds from the house's beginning until this start; `until`: when it is ended, in s since it was opened."""
    folder = pathlib.Path(folder)
    papers = folder / "papers"
    with open(papers, "wb") as file:
        # Of one length and nowhere that the kernel takes chance from: until then nothing depends on it.
        file.write(f"{round(until * 1000):09} {LEAVES[leaves]}".encode())
        file.truncate(PAPERS)
    try:
        subprocess.run(command(folder, kernel, initrd, disk, seed, since), stdin=subprocess.DEVNULL, timeout=limit,
                       check=True)
        with tarfile.open(papers) as archive:
            archive.extractall(folder)
    finally:
        papers.unlink()
