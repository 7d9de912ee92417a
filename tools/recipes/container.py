#!/usr/bin/python3
"""Builds the container's image from the packages, on a base of this machine's own mirror, and plays a
session in it on the simulated card. Needs root; no container engine, and nothing of it stays.

usage: container.py PACKAGES     (their folder; ./dev container makes them)
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import wave

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "tools/run"))
import own_device  # noqa: E402

DOCKERFILE = SOURCE / "packaging/recipes/container/Dockerfile"
IMAGE = "nuvio-connect"
BASE = "localhost/base"
STATE = "/var/lib/nuvio-connect"
CARD = f"{STATE}/card"
SECOND = 44100 * 4  # bytes


def run(*words):
    return subprocess.run(list(map(str, words)), check=True, stdout=subprocess.PIPE, text=True).stdout


def command(folder):
    return "buildah", "--root", folder / "store", "--runroot", folder / "run"


def buildah(folder, *words):
    return run(*command(folder), *words).strip()


def make_image(folder, packages):
    mirror = next(line.split()[-1] for line in run("apt-get", "indextargets").splitlines()
                  if line.startswith("Repo-URI: "))
    run("mmdebstrap", "--quiet", "--mode=root", "--variant=apt", "--dpkgopt=force-unsafe-io",
        "bookworm", folder / "base.tar", mirror)
    base = buildah(folder, "from", "scratch")
    buildah(folder, "add", "--quiet", base, folder / "base.tar", "/")
    buildah(folder, "commit", "--quiet", base, BASE)
    buildah(folder, "bud", "--pull-never", "--network", "host", "--build-arg", f"BASE={BASE}",
            "--file", DOCKERFILE, "--tag", IMAGE, packages)


def play(folder, packages):
    """In a network of its own. The simulated card is the tools', which the image does not have."""
    run("ip", "link", "set", "lo", "up")
    container = buildah(folder, "from", IMAGE)
    root = pathlib.Path(buildah(folder, "mount", container))
    run("dpkg", "-x", *packages.glob("nuvio-connect-tools_*.deb"), root)
    state = folder / "state"
    state.mkdir()
    state.chmod(0o777)
    in_it = ("run", "--volume", f"{state}:{STATE}", container)
    buildah(folder, *in_it, "simcardctl", "create", CARD)
    with wave.open(str(state / "music.wav"), "wb") as music:
        music.setparams((2, 2, 44100, 0, "NONE", ""))
        music.writeframes(os.urandom(3 * SECOND))
    own_device.write_settings(root / "etc/nuvio-connect", 8000, host__state_dir=STATE,
                              local__music_folders=STATE)
    entry = buildah(folder, "inspect", "--type", "image", "--format",
                    "{{index .OCIv1.Config.Entrypoint 0}}", IMAGE)
    service = subprocess.Popen([*command(folder), *in_it, "env",
                                f"ALSA_CONFIG_PATH={CARD}/asound.conf", entry])
    try:
        own_device.wait_for("the device answers", lambda: own_device.answers(8000, service))
        if (status := own_device.connect(8000, f"{STATE}/music.wav")) != 200:
            raise AssertionError(f"the session: {status}")
        recordings = state / "card/recordings"
        own_device.wait_for("a second of sound", lambda: recordings.is_dir() and any(
            sound.stat().st_size > SECOND for sound in recordings.iterdir()))
    finally:
        own_device.end(service)
    print(f"container: the image builds, and plays as {buildah(folder, *in_it, 'id', '-un')}")


def main():
    os.environ["BUILDAH_ISOLATION"] = "chroot"
    packages = pathlib.Path(sys.argv[1]).resolve()
    if len(sys.argv) == 3:
        return play(pathlib.Path(sys.argv[2]), packages)
    with tempfile.TemporaryDirectory(prefix="nuvio-container-") as folder:
        make_image(pathlib.Path(folder), packages)
        print(run("unshare", "--net", "--mount", __file__, packages, folder), end="")


main()
