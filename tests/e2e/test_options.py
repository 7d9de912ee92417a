"""What a program's --help lists is what its manual lists, and what it does not know it names."""
import os
import pathlib
import re
import subprocess
import unittest

from device import program

ROOT = pathlib.Path(__file__).parents[2]
# The table's command, and the manual in which its options stand.
TABLES = {
    ("nuvio-connect",): "packaging/man/nuvio-connect.8",
    ("nuvio-connect-controller", "serve"): "packaging/man/nuvio-connect-controller.1",
    ("nuvio-connect-controller", "status"): "packaging/man/nuvio-connect-controller.1",
    ("nuvio-connect-conformance",): "kit/nuvio-connect-conformance.1",
}


def run(command, *words):
    return subprocess.run([*program(command[0]), *command[1:], *words], text=True,
                          capture_output=True, timeout=60)


class Options(unittest.TestCase):
    def test_the_manual_has_each_option_with_its_value_and_completion_offers_it(self):
        for command, manual in TABLES.items():
            page = (ROOT / manual).read_text()
            listed = re.findall(r"(?m)^  --([a-z-]+)( [A-Z]+)?  ", run(command, "--help").stdout)
            self.assertIn(("help", ""), listed)
            for name, value in listed:
                entry = rf"(?m)^\.It .*Fl -{name}\b" + (" Ar" if value else "")
                with self.subTest(command=command, option=name):
                    self.assertRegex(page, entry)
            if len(command) == 1:
                self.assertEqual(self.completed(command[0]), {f"--{name}" for name, _ in listed})

    def completed(self, name):
        folder = "kit" if name.endswith("conformance") else "packaging"
        path = f"{pathlib.Path(program(name)[-1]).parent}:{os.environ['PATH']}"
        told = subprocess.run(
            ["bash", "-c", f". {ROOT}/{folder}/completion/{name}; COMP_WORDS=({name} --); "
             f"COMP_CWORD=1; _{name.replace('-', '_')}; echo \"${{COMPREPLY[@]}}\""],
            env={**os.environ, "PATH": path}, text=True, capture_output=True, timeout=60)
        return set(told.stdout.split())

    def test_what_is_not_understood_is_named_with_status_2(self):
        for command in TABLES:
            valued = re.search(r"--([a-z-]+) [A-Z]", run(command, "--help").stdout.split("\n\n", 1)[1])
            wrong = {"--nothing": "unknown option '--nothing'", "-x": "unknown option '-x'"}
            if valued:
                wrong[f"--{valued[1]}"] = f"no value for '--{valued[1]}'"
            for word, said in wrong.items():
                with self.subTest(command=command, word=word):
                    told = run(command, word)
                    self.assertEqual((told.returncode, told.stdout), (2, ""))
                    self.assertIn(said, told.stderr)


if __name__ == "__main__":
    unittest.main()
