"""Makes what the house's machine boots from: Debian's kernel, and a file system in memory with the
programs under test, the services that they need, and what all of these load.

Nothing in it depends on when or where it was made: the same programs make the same bytes.
"""
import os
import pathlib
import py_compile
import re
import shutil
import stat
import subprocess
import sys
import tempfile

import music

HERE = pathlib.Path(__file__).resolve().parent
PYTHON = f"python3.{sys.version_info[1]}"
STANDARD_LIBRARY = pathlib.Path("/usr/lib") / PYTHON
MODULES = ["veth", "bridge", "sch_netem", "nfit", "nd_pmem", "ext4", "crc32c_generic"]
OWN = ["nuvio-connect", "nuvio-connect-fetcher", "nuvio-connect-reader", "nuvio-connect-controller", "simcardctl"]
SERVICES = ["avahi-daemon", "dash", "dbus-daemon", "dbus-send", "ip", "icecast2", "nginx", "tc", PYTHON]
# Of Python's own library what no program here imports.
LEFT_OUT = {"__pycache__", "ensurepip", "idlelib", "lib2to3", "pydoc_data", "test", "tkinter", "turtledemo",
            "unittest", "dist-packages", "sqlite3", "distutils"}
ALSA = pathlib.Path("/usr/share/alsa")
TEXTS = {
    "/etc/passwd": "root:x:0:0:root:/root:/bin/sh\navahi:x:100:100:avahi:/:/bin/sh\n"
                   "nobody:x:65534:65534:nobody:/:/bin/sh\n",
    "/etc/group": "root:x:0:\navahi:x:100:\nnogroup:x:65534:\n",
    "/etc/nsswitch.conf": "passwd: files\ngroup: files\nhosts: files\n",
    "/etc/hosts": "127.0.0.1 localhost\n",
    "/etc/machine-id": "0123456789abcdef0123456789abcdef\n",
}
FOLDERS = ["/dev", "/root", "/var/log/nginx", "/var/lib/nginx", "/var/run", "/etc/avahi"]


def libraries_of(program):
    """The paths of what a program or library loads at its start."""
    listed = subprocess.run(["ldd", program], text=True, capture_output=True).stdout
    return {pathlib.Path(path) for path in re.findall(r"(/\S+) \(0x", listed)}


def which(name):
    found = shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin")
    if found is None:
        raise SystemExit(f"house: {name} is not installed")
    return pathlib.Path(found)


class Image:
    """A tree of files, by their paths in the machine."""

    def __init__(self):
        self.entries = {}  # path: (mode, bytes)

    def add_folder(self, path):
        path = pathlib.PurePosixPath(path)
        for folder in reversed([path, *path.parents]):
            if str(folder) != "/":
                self.entries.setdefault(str(folder), (stat.S_IFDIR | 0o755, b""))

    def add(self, path, content, mode=0o644):
        self.add_folder(pathlib.PurePosixPath(path).parent)
        self.entries[str(path)] = (stat.S_IFREG | mode, content)

    def add_link(self, path, target):
        self.add_folder(pathlib.PurePosixPath(path).parent)
        self.entries[str(path)] = (stat.S_IFLNK | 0o777, str(target).encode())

    def add_file(self, path, source):
        source = pathlib.Path(source)
        self.add(path, source.read_bytes(), source.stat().st_mode & 0o755)

    def add_program(self, source, path=None):
        self.add_file(path or source, source)
        for library in libraries_of(source):
            if str(library) not in self.entries and not library.name.startswith("libnuvio"):
                self.add_file(library, library.resolve())

    def add_own(self, source, path):
        """Without what only a debugger reads."""
        with tempfile.TemporaryDirectory() as folder:
            stripped = pathlib.Path(folder) / "stripped"
            subprocess.run(["strip", "--strip-debug", "-o", stripped, source], check=True)
            self.add_program(source, path)
            self.add(path, stripped.read_bytes(), 0o755)

    def add_python(self, source, path):
        """With its code beside it, which is taken as it is whatever the clocks say."""
        self.add_file(path, source)
        with tempfile.TemporaryDirectory() as folder:
            compiled = pathlib.Path(folder) / "compiled"
            py_compile.compile(str(source), str(compiled), str(path), doraise=True,
                               invalidation_mode=py_compile.PycInvalidationMode.UNCHECKED_HASH)
            where = pathlib.PurePosixPath(path)
            self.add(where.parent / f"__pycache__/{where.stem}.{sys.implementation.cache_tag}.pyc",
                     compiled.read_bytes())

    def archive(self):
        """As the kernel unpacks it (cpio, "newc")."""
        parts = []

        def entry(name, mode, content, number):
            fields = [number, mode, 0, 0, 1, 0, len(content), 0, 0, 0, 0, len(name) + 1, 0]
            head = b"070701" + b"".join(b"%08X" % field for field in fields) + name + b"\0"
            parts.extend([head, b"\0" * (-len(head) % 4), content, b"\0" * (-len(content) % 4)])
        for number, (path, (mode, content)) in enumerate(sorted(self.entries.items()), 1):
            entry(path[1:].encode(), mode, content, number)
        entry(b"TRAILER!!!", 0, b"", 0)
        return b"".join(parts)


def add_standard_library(image):
    for source in sorted(STANDARD_LIBRARY.rglob("*")):
        parts = source.relative_to(STANDARD_LIBRARY).parts
        if LEFT_OUT & set(parts) or parts[0].startswith("config-") or not source.is_file():
            continue
        if source.suffix == ".py":
            image.add_python(source, source)
        elif source.suffix == ".so":
            image.add_program(source)


def add_modules(image, kernel):
    """In the order in which they are loaded, with those that they need."""
    ordered = []

    def want(name):
        found = [path for path in kernel.rglob("*.ko") if path.stem.replace("-", "_") == name.replace("-", "_")]
        if not found:  # it is in the kernel itself
            return
        [path] = found
        if path in ordered:
            return
        needed = re.search(rb"\0depends=([^\0]*)\0", path.read_bytes())[1].decode()
        for other in filter(None, needed.split(",")):
            want(other)
        ordered.append(path)
    for name in MODULES:
        want(name)
    for number, path in enumerate(ordered):
        image.add_file(f"/modules/{number:02}-{path.name}", path)


def make_image(build, kernel):
    image = Image()
    for folder in FOLDERS:
        image.add_folder(folder)
    for path, text in TEXTS.items():
        image.add(path, text.encode())
    for name in OWN:
        image.add_own(build / "bin" / name, f"/nuvio/bin/{name}")
    for library in sorted([*(build / "lib").glob("libnuvio*.so*"), *build.rglob("libasound_module_*")]):
        if "ffmpeg" in library.name:
            continue  # a hundred libraries, and no file here needs them
        if library.is_symlink():
            image.add_link(f"/nuvio/lib/{library.name}", os.readlink(library))
        else:
            image.add_own(library, f"/nuvio/lib/{library.name}")
    for name in SERVICES:
        image.add_program(which(name))
    image.add_link("/bin/sh", which("dash"))
    image.add_link("/usr/bin/python3", which(PYTHON))
    add_standard_library(image)
    for path in sorted(each for each in ALSA.rglob("*") if each.is_file()):
        image.add_file(path, path)
    for source in [*sorted(HERE.glob("inside/*.py")), HERE / "music.py",
                   *(HERE.parent / f"run/{name}.py" for name in ("icecast", "own_device", "web_server"))]:
        image.add_python(source, f"/nuvio/house/{source.name}")
    image.add_file("/init", HERE / "inside/init")
    with tempfile.TemporaryDirectory() as folder:
        music.write_music(folder)
        for path in sorted(pathlib.Path(folder).rglob("*.*")):
            image.add_file(f"/music/{path.relative_to(folder)}", path)
        radio = pathlib.Path(folder) / "radio.mp3"
        music.write_radio(radio)
        image.add_file("/radio.mp3", radio)
    add_modules(image, kernel)
    return image


def fetch_kernel(folder):
    """Debian's, unpacked: the folder with vmlinuz and lib/modules."""
    if (folder / "vmlinuz").exists():
        return folder
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    told = subprocess.run(["apt-cache", "depends", "linux-image-amd64"], text=True, capture_output=True, check=True)
    name = re.search(r"Depends: (\S+)", told.stdout)[1]
    subprocess.run(["apt-get", "-q", "download", name], cwd=folder, check=True, capture_output=True)
    [package] = folder.glob("*.deb")
    listed = subprocess.run(["dpkg-deb", "--fsys-tarfile", package], check=True, capture_output=True).stdout
    subprocess.run(["tar", "-x", "-C", folder, "--wildcards", "./boot/vmlinuz-*", "./lib/modules/*/kernel"],
                   input=listed, check=True)
    package.unlink()
    [vmlinuz] = (folder / "boot").glob("vmlinuz-*")
    vmlinuz.rename(folder / "vmlinuz")
    return folder
