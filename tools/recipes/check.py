#!/usr/bin/python3
"""Checks the recipes of packaging/recipes as far as that goes without the systems they are for: their
syntax, that they name every library which the build asks for, and that they ship what is installed.

usage: check.py BUILD     (a build tree with all that is installed)
"""
import fnmatch
import pathlib
import re
import subprocess
import sys
import tempfile

import kconfiglib

SOURCE = pathlib.Path(__file__).resolve().parents[2]
RECIPES = SOURCE / "packaging/recipes"
BUILDROOT = RECIPES / "buildroot"
MAKEFILE = BUILDROOT / "package/nuvio-connect/nuvio-connect.mk"
BITBAKE = next((RECIPES / "yocto").glob("*.bb"))
DOCKERFILE = RECIPES / "container/Dockerfile"
SHIPPED = ("daemon", "core", "reader", "host")  # what is on a device
# A library as cmake/dependencies.cmake names it: its package in Buildroot and in Yocto.
LIBRARIES = {"libuv": ("libuv", "libuv"), "avahi-client": ("avahi", "avahi"),
             "libcjson": ("cjson", "cjson"), "alsa": ("alsa-lib", "alsa-lib"),
             "sndfile": ("libsndfile", "libsndfile1"), "soxr": ("libsoxr", "soxr"),
             "flac": ("flac", "flac"),
             "libcurl": ("libcurl", "curl"), "taglib": ("taglib", "taglib"), "expat": ("expat", "expat"),
             "libseccomp": ("libseccomp", "libseccomp"), "libpng": ("libpng", "libpng"),
             "libturbojpeg": ("jpeg-turbo", "libjpeg-turbo"), "libwebp": ("webp", "libwebp"),
             "libwebsockets": ("libwebsockets", "libwebsockets"),
             "libsystemd": ("systemd", "systemd"), "libmd": ("libmd", "libmd"),
             "liburiparser": ("liburiparser", "uriparser"), "libcrypto": ("openssl", "openssl"),
             "sqlite3": ("sqlite", "sqlite3"), "zlib": ("zlib", "zlib"),
             "civetweb": ("civetweb", "civetweb")}
# Yocto's variables for folders, as on a machine with a merged /usr.
FOLDERS = {"bindir": "/usr/bin", "libdir": "/usr/lib", "libexecdir": "/usr/libexec",
           "datadir": "/usr/share", "sysconfdir": "/etc",
           "mandir": "/usr/share/man", "nonarch_libdir": "/usr/lib",
           "systemd_system_unitdir": "/usr/lib/systemd/system"}

problems = []


def expect(holds, problem):
    if not holds:
        problems.append(problem)


def run(*words, text=None):
    result = subprocess.run(words, input=text, text=True, capture_output=True)
    expect(result.returncode == 0, f"{' '.join(map(str, words))}: {result.stderr.strip()}")
    return result.stdout


def wanted_libraries():
    text = (SOURCE / "cmake/dependencies.cmake").read_text()
    found = set(re.findall(r"pkg_check_modules\(\w+ REQUIRED IMPORTED_TARGET ([\w-]+)", text))
    return found | {name for name in re.findall(r"find_library\(\w+ (\w+)", text)}


def version():
    return re.search(r"VERSION ([\d.]+) LANG", (SOURCE / "CMakeLists.txt").read_text())[1]


def installed_files(build):
    """Paths on a device, the libraries' folder as it is without Debian's triplet."""
    with tempfile.TemporaryDirectory() as folder:
        for component in SHIPPED:
            run("env", f"DESTDIR={folder}", "cmake", "--install", build, "--component", component)
        paths = ["/" + str(path.relative_to(folder)) for path in pathlib.Path(folder).rglob("*")
                 if not path.is_dir()]
    paths = [re.sub(r"/lib/\w+-linux-\w+/", "/lib/", path) for path in paths]
    return [path for path in paths if "/doc/" not in path]  # the licence, which each ships by itself


def check_buildroot(libraries):
    # The macros of Buildroot do nothing here, but for what the makefile itself sets.
    out = run("make", "-s", "-f", "-", "show", text="BR2_PACKAGE_NUVIO_CONNECT_CORE_LOCAL = y\n"
              "BR2_PACKAGE_NUVIO_CONNECT_HOST_LINUX = y\n" + MAKEFILE.read_text() +
              "\nshow:\n\t@echo 'depends $(NUVIO_CONNECT_DEPENDENCIES)'\n"
              "\t@echo 'ships $(NUVIO_CONNECT_COMPONENTS)'\n"
              "\t@echo 'version $(NUVIO_CONNECT_VERSION)'\n")
    values = dict(line.split(" ", 1) for line in out.splitlines() if " " in line)
    expect(values.get("ships", "").split() == list(SHIPPED), f"buildroot ships {values.get('ships')}")
    expect(values.get("version") == version(), "buildroot: not this version")
    depends = values.get("depends", "").split()
    with tempfile.TemporaryDirectory() as folder:
        # The options of Buildroot that the menu refers to.
        menu = BUILDROOT / "package/nuvio-connect/Config.in"
        known = set(re.findall(r"\bBR2_\w+", menu.read_text()))
        own = {name for name in known if name.startswith("BR2_PACKAGE_NUVIO_CONNECT")}
        top = pathlib.Path(folder, "Config.in")
        top.write_text("".join(f"config {name}\n\tbool \"{name}\"\n" for name in sorted(known - own)) +
                       f'source "{menu}"\n')
        menu_tree = kconfiglib.Kconfig(str(top), warn_to_stderr=False)
        expect(not menu_tree.warnings, f"buildroot: {menu_tree.warnings}")
        for name in sorted(known - own):
            menu_tree.syms[name].set_value("y" if "TOOLCHAIN" in name or "STDCPP" in name or
                                           name == "BR2_PACKAGE_SYSTEMD" else "n")
        menu_tree.syms["BR2_PACKAGE_NUVIO_CONNECT"].set_value("y")
        chosen = {name for name, symbol in menu_tree.syms.items() if symbol.str_value == "y"}
    for library in sorted(libraries):
        package = LIBRARIES[library][0]
        expect(package in depends, f"buildroot: the makefile does not depend on {package}")
        expect("BR2_PACKAGE_" + package.upper().replace("-", "_") in chosen,
               f"buildroot: the menu does not select {package}")


def check_yocto(libraries, files):
    text = re.sub(r"\\\n", " ", BITBAKE.read_text())
    for body in re.findall(r"(?ms)^do_\w+\(\) \{\n(.*?)^\}", text):
        run("sh", "-n", text=re.sub(r"\$\{@[^}]*\}", "word", body))
    text = re.sub(r"(?ms)^do_\w+\(\) \{\n.*?^\}", "", text)
    values = {}
    for line in filter(str.strip, text.splitlines()):
        found = re.fullmatch(r'([\w:${}\[\]-]+) *(=|\?\?=|\+=|=\+) *"(.*)"|inherit .*|#.*', line)
        expect(found is not None, f"yocto: {line}")
        if found and found[1]:
            values[found[1]] = found[3]
    expect(BITBAKE.name == f"nuvio-connect_{version()}.bb", "yocto: not this version")
    depends = values["DEPENDS"].split()
    for library in sorted(libraries):
        expect(LIBRARIES[library][1] in depends, f"yocto: not in DEPENDS: {LIBRARIES[library][1]}")
    patterns = [re.sub(r"\$\{(\w+)\}", lambda name: FOLDERS[name[1]], pattern)
                for name, value in values.items() if name.startswith("FILES:")
                for pattern in value.split()]
    for path in files:
        owners = [pattern for pattern in patterns if fnmatch.fnmatch(path, pattern)]
        expect(len(owners) == 1, f"yocto: {path} is shipped by {len(owners)} packages")
    for pattern in patterns:
        expect(fnmatch.filter(files, pattern), f"yocto: nothing is installed as {pattern}")
    licence = run("md5sum", SOURCE / "LICENSE").split()[0]
    expect(f"md5={licence}" in values["LIC_FILES_CHKSUM"], "yocto: not this licence")


def check_container(build):
    text = re.sub(r"\\\n", " ", DOCKERFILE.read_text())
    for line in text.splitlines():
        words = line.split()
        if not words or line.startswith("#"):
            continue
        expect(words[0] in ("ARG", "FROM", "COPY", "RUN", "USER", "VOLUME", "ENTRYPOINT"),
               f"container: {line}")
        if words[0] == "RUN":
            run("sh", "-n", text=line.removeprefix("RUN "))
        if words[0] == "COPY":
            for name in words[1:-1]:
                expect(len(list((build / "packages").glob(name))) == 1,
                       f"container: no package {name}")


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    libraries, files = wanted_libraries(), installed_files(build)
    unknown = libraries - LIBRARIES.keys()
    expect(not unknown, f"which packages are these elsewhere: {', '.join(sorted(unknown))}?")
    check_buildroot(libraries & LIBRARIES.keys())
    check_yocto(libraries & LIBRARIES.keys(), files)
    check_container(build)
    print("\n".join(problems) or f"recipes: {len(libraries)} libraries named, {len(files)} files shipped")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
