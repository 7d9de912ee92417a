"""axe-core, which judges the page's accessibility. As a program, with a network, it has npm fetch the
version below into the build folder, once; the tests read it there."""
import base64
import hashlib
import os
import pathlib
import subprocess
import sys
import tarfile
import tempfile

VERSION = "4.14.1"
INTEGRITY = "FHfa+lmNjQZfJz1q8wKqIDwC6DExcHt/pkjNQb09a3NPjCKg2rhu5qb2S4r76ASyFNNtuFooJpZe37OgudVGtQ=="
PLACE = pathlib.Path(os.environ["NUVIO_BUILD"]) / f"axe-{VERSION}.min.js"


def fetch():
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["npm", "pack", "--silent", "--ignore-scripts", f"axe-core@{VERSION}"], cwd=folder,
                       check=True, timeout=120, stdout=subprocess.DEVNULL)
        package, = pathlib.Path(folder).glob("*.tgz")
        if base64.b64encode(hashlib.sha512(package.read_bytes()).digest()).decode() != INTEGRITY:
            raise ValueError("what npm fetched is another file than the one named here")
        with tarfile.open(package) as files:
            script = files.extractfile("package/axe.min.js").read()
    own = PLACE.with_suffix(f".{os.getpid()}")
    own.write_bytes(script)
    own.rename(PLACE)


if __name__ == "__main__" and not PLACE.exists():
    try:
        fetch()
    except (OSError, ValueError, subprocess.SubprocessError) as failure:
        sys.exit(f"axe-core was not fetched: {failure}")
