"""Who judges the page: axe-core its accessibility, Lighthouse that and more. As a program, with a network,
it has npm fetch what judges/package-lock.json names into the build folder, once; the tests read it there."""
import os
import pathlib
import shutil
import subprocess
import sys

WANTED = pathlib.Path(__file__).parent / "judges"
FOLDER = pathlib.Path(os.environ["NUVIO_BUILD"]) / "judges"
HERE = FOLDER / "node_modules/.package-lock.json"  # made when all is there
AXE = FOLDER / "node_modules/axe-core/axe.min.js"
LIGHTHOUSE = FOLDER / "node_modules/lighthouse/cli/index.js"


def are_there():
    lock = FOLDER / "package-lock.json"
    return HERE.exists() and lock.read_bytes() == (WANTED / lock.name).read_bytes()


if __name__ == "__main__" and not are_there():
    shutil.rmtree(FOLDER, ignore_errors=True)
    shutil.copytree(WANTED, FOLDER)
    if subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit"], cwd=FOLDER, timeout=240).returncode != 0:
        sys.exit("what judges the page was not fetched")
