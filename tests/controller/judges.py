"""axe-core, which judges the page's accessibility. As a program, with a network, it has npm fetch the
version below into the build folder, once; the tests read it there."""
import json
import os
import pathlib
import subprocess
import sys

VERSION = "4.14.1"
INTEGRITY = "sha512-FHfa+lmNjQZfJz1q8wKqIDwC6DExcHt/pkjNQb09a3NPjCKg2rhu5qb2S4r76ASyFNNtuFooJpZe37OgudVGtQ=="
FOLDER = pathlib.Path(os.environ["NUVIO_BUILD"]) / f"axe-{VERSION}"
PLACE = FOLDER / "node_modules/axe-core/axe.min.js"

if __name__ == "__main__" and not PLACE.exists():
    FOLDER.mkdir(exist_ok=True)
    wanted = {"dependencies": {"axe-core": VERSION}}
    (FOLDER / "package.json").write_text(json.dumps(wanted))
    (FOLDER / "package-lock.json").write_text(json.dumps({"lockfileVersion": 3, "packages": {
        "": wanted, "node_modules/axe-core": {"version": VERSION, "integrity": INTEGRITY}}}))
    if subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit"], cwd=FOLDER,
                      timeout=120).returncode != 0:
        sys.exit("axe-core was not fetched")
