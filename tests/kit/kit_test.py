"""What the conformance program says of the project's own layers, of the smallest and of broken ones."""
import os
import pathlib
import re
import signal
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
# The broken ones: the rules that each fails, and those that are looked at for it besides.
BROKEN = {
    ("core", "delegate_inside"): ({"volume", "not-inside", "loop-thread"}, {"session"}),
    ("core", "lost_disposal"): ({"tracks", "stop", "leave"}, set()),
    ("core", "offers_on"): ({"delivery"}, set()),
    ("core", "lost_rest"): ({"rest"}, {"session", "delivery"}),
    ("host", "late_answer"): ({"messages"}, set()),
    ("host", "told_inside"): ({"listeners"}, set()),
    ("host", "told_after_leaving"): ({"listeners"}, set()),
    ("host", "told_after_the_end"): ({"end"}, set()),
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

    def test_a_broken_one_fails_the_rule_that_it_breaks_looked_at_alone(self):
        runs = {run: self.start(run[0], f"broken_{run[1]}", "--patience", "2", *(
                    word for rule in sorted(fails | besides) for word in ("--rule", rule)))
                for run, (fails, besides) in BROKEN.items()}
        for run, program in runs.items():
            with self.subTest(run):
                fails, besides = BROKEN[run]
                text = program.communicate(timeout=250)[0]
                told = {rule: word for word, rule in re.findall(r"(?m)^(ok|FAIL|-) +(\S+)", text)}
                self.assertEqual(set(told), fails | besides, text)
                self.assertEqual({rule for rule, word in told.items() if word == "FAIL"}, fails)
                self.assertEqual(program.returncode, 1)

    def test_the_signals_end_the_service_on_a_platform_that_leaves_them_alone(self):
        folder = pathlib.Path(self.environment["NUVIO_STATE_DIR"])
        (folder / "libnuvio_host.so.1").symlink_to(BUILD / "lib/libbroken_serves_for_ever.so")
        libraries = f"{folder}:{os.environ.get('LD_LIBRARY_PATH', '')}"
        service = subprocess.Popen([*EMULATOR, BUILD / "bin/nuvio-connect"], text=True,
                                   env={**self.environment, "LD_LIBRARY_PATH": libraries,
                                        "NUVIO_LOG_STDERR": "1"},
                                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        self.addCleanup(service.stderr.close)
        self.assertTrue(any("MAIN TO START NUVIO CONNECT END" in line for line in service.stderr))
        service.terminate()
        self.assertEqual(service.wait(timeout=60), -signal.SIGTERM)

    def test_it_lists_the_rules_and_refuses_others(self):
        for layer in ("core", "host"):
            listed = self.start(layer, f"minimal_{layer}", "--list").communicate(timeout=60)[0]
            self.assertGreater(len(listed.split()), 10)
            other = self.start(layer, f"minimal_{layer}", "--rule", listed.split()[0],
                               "--rule", "nothing")
            self.assertIn("unknown rule 'nothing'", other.communicate(timeout=60)[0])
            self.assertEqual(other.returncode, 2)


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
