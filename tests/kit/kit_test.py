"""What the conformance program says of the project's own layers, of the smallest and of broken ones."""
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["NUVIO_BUILD"])
SOURCE = pathlib.Path(__file__).resolve().parents[2]
EMULATOR = os.environ.get("NUVIO_EMULATOR", "").split()
SETTINGS = """feature.nuvio_connect = 1
feature.nuvio_connect.app_id = id
feature.nuvio_connect.app_secret = secret
host.bus = none
"""
# The broken ones, and the rules that each is at least to fail.
BROKEN = {
    ("core", "delegate_inside"): {"not-inside", "loop-thread"},
    ("core", "lost_disposal"): {"tracks", "stop", "leave"},
    ("core", "offers_on"): {"delivery"},
    ("core", "lost_rest"): {"rest"},
    ("host", "late_answer"): {"messages"},
    ("host", "told_inside"): {"listeners"},
    ("host", "told_after_leaving"): {"listeners"},
    ("host", "told_after_the_end"): {"end"},
}


class Kit(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        settings = pathlib.Path(folder.name, "settings.conf")
        settings.write_text(SETTINGS)
        self.environment = {**os.environ, "NUVIO_SETTINGS": str(settings),
                            "NUVIO_STATE_DIR": folder.name}

    def start(self, layer, library, *options):
        return subprocess.Popen([*EMULATOR, BUILD / "bin/nuvio-connect-conformance", f"--{layer}",
                                 BUILD / f"lib/lib{library}.so", *options], text=True,
                                env=self.environment, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT)

    def test_the_projects_own_layers_and_the_smallest_hold_every_rule(self):
        runs = {run: self.start(*run) for run in (
            ("core", "nuvio_connect", "--all"), ("host", "nuvio_host", "--all"),
            ("core", "minimal_core"), ("host", "minimal_host", "--all"))}
        for run, program in runs.items():
            with self.subTest(run):
                text = program.communicate(timeout=250)[0]
                self.assertEqual(program.returncode, 0, text)

    def test_a_broken_one_fails_the_rule_that_it_breaks(self):
        runs = {run: self.start(run[0], f"broken_{run[1]}", "--patience", "2") for run in BROKEN}
        for run, program in runs.items():
            with self.subTest(run):
                text = program.communicate(timeout=250)[0]
                failed = set(re.findall(r"(?m)^FAIL +(\S+)", text))
                self.assertLessEqual(BROKEN[run], failed, text)
                self.assertEqual(program.returncode, 1)

    def test_rules_are_listed_and_looked_at_one_by_one(self):
        rules = {"core": 27, "host": 12}
        for layer, count in rules.items():
            library = "nuvio_connect" if layer == "core" else "nuvio_host"
            listed = self.start(layer, library, "--list").communicate(timeout=60)[0].split()
            self.assertEqual(len(set(listed)), count, listed)
            self.assertLessEqual(set().union(*(rules for (of, _), rules in BROKEN.items()
                                               if of == layer)), set(listed))
            self.assertIn("FAIL  nonsense", self.start(layer, library, "--rule", "nonsense")
                          .communicate(timeout=60)[0])
        lost = self.start("core", "broken_lost_disposal", "--rule=stop", "--rule=texts", "--patience=2")
        self.assertRegex(lost.communicate(timeout=60)[0],
                         r"(?s)^ok +load[^\n]*\nok +texts[^\n]*\nFAIL +stop[^\n]*\n1 rules fail")


class Options(unittest.TestCase):
    def test_the_manual_has_each_option_and_no_other_is_taken(self):
        for program, manual in [("nuvio-connect", "packaging/man/nuvio-connect.8"),
                                ("nuvio-connect-controller", "packaging/man/nuvio-connect-controller.1"),
                                ("nuvio-connect-conformance", "kit/nuvio-connect-conformance.1")]:
            command = [*EMULATOR, BUILD / "bin" / program]
            told = subprocess.run([*command, "--help"], text=True, capture_output=True, check=True)
            text = (SOURCE / manual).read_text().replace("\\-", "-")
            for option in set(re.findall(r"(?m)^  --([a-z-]+)", told.stdout)) - {"help"}:
                self.assertRegex(text, rf"(Fl )?-{option}\b", (program, option))
            wrong = subprocess.run([*command, "--nonsense"], text=True, capture_output=True)
            self.assertEqual(wrong.returncode, 2, program)
            self.assertIn("'--nonsense'", wrong.stderr)
