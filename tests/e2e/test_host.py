"""The device as the machine's owner sees it: front panel, other sources, network, what plays now."""
import json
import os
import re
import shutil
import socket
import subprocess

from device import CD, EMULATOR, PANEL, PATIENCE, DeviceTest, program, wait_for


class HostTest(DeviceTest):
    def setUp(self):
        super().setUp()
        for n in range(2):
            self.track(f"track {n}.wav", 40, n * CD)

    def panel(self, *words):
        return self.run_tool(PANEL, *words)

    def wait_for_status(self, status):
        wait_for(f"status {status}", lambda: self.player("status") == status)

    def metadata(self):
        return self.player("metadata") or ""

    def display_name(self):
        return json.loads(self.request("GET", "/get-display-info")[1])["friendly_name"]


class SelfCheck(DeviceTest):
    settings = {"alsa__output_rates": "44100,192000"}

    def run_daemon(self, *words):
        return subprocess.run([*program("nuvio-connect"), *words], env=self.environment,
                              text=True, capture_output=True, timeout=PATIENCE)

    def findings(self, *words):
        result = self.run_daemon(*(words or ["--check"]))
        return {subject: (word, text) for word, subject, text in
                re.findall(r"(?m)^(ok|FAIL) +(\w+) +(.*)$", result.stdout)}

    def test_it_tries_the_port_and_all_that_is_announced(self):
        found = self.findings()
        self.assertEqual(found["settings"][0], "ok", found)
        self.assertRegex(str(found["output"]), r"'ok'.* up to 192000 Hz, 24 bit; buffer \d+ ms, "
                                               r"period \d+ ms")
        self.assertRegex(str(found["mixer"]), r"'ok'.*'Master' of 'default': volume \d+ of 0 to ")
        told = self.run_daemon("--check", "--json")
        self.assertEqual({check["subject"]: ("ok" if check["ok"] else "FAIL", check["text"])
                          for check in json.loads(told.stdout)["checks"]}, found)
        self.assertEqual(json.loads(told.stdout)["ok"], told.returncode == 0)
        self.start()  # the service itself holds the port; an emulator hides who that is
        if not EMULATOR:
            self.assertEqual(self.findings()["settings"][0], "ok")

    def test_it_names_who_holds_the_port(self):
        with socket.create_server(("", self.port)):
            self.assertRegex(str(self.findings()["settings"]),
                             rf"'FAIL'.* is in use by python\S* \(process {os.getpid()}\)")
        for key, value, problem in (
                ("feature.nuvio_connect.http_port", 80, "for root alone"),
                ("feature.nuvio_connect.http_port", "80o0", r"settings.conf:4: .* not a port"),
                ("host.bus", "sesion", r"settings.conf:\d+: host.bus = sesion: neither "),
                ("hots.bus", "none", r"settings.conf:\d+: nothing is known by the key hots.bus")):
            self.write_settings(**{key: value})
            self.assertRegex(str(self.findings()["settings"]), f"'FAIL'.*{problem}")

    def test_what_the_card_refuses_is_set_right_by_the_setup_that_it_advises(self):
        for options, problem, able in (
                (("--rates", "48000"), "plays at 48000 Hz what .* 44100 Hz, 16 bit", "48000 Hz, 16"),
                (("--formats", "S16_LE"), "refuses what .* 44100 Hz, 24 bit", "48000 Hz, 16"),
                (("--channels", "2-8"), "refuses what .* 16 bit, mono", "192000 Hz, 24")):
            shutil.rmtree(self.folder / "card")
            self.card("create", *options, "--element", "Digital")
            (self.folder / "alsa.conf").unlink(missing_ok=True)
            self.write_settings(**self.settings, host__friendly_name="Kitchen # 2")
            self.assertRegex(str(self.findings()["output"]), f"'FAIL'.*{problem}: run 'nuvio-connect")
            found = self.findings("--setup", "--card", "default")
            self.assertRegex(str(found["output"]), f"'ok', .* up to {able} bit")
            self.assertRegex(str(found["mixer"]), "'ok', .*'Digital'")
            self.assertIn("host.friendly_name = Kitchen # 2\n",
                          (self.folder / "settings.conf").read_text())


class Panel(HostTest):
    def test_a_rename_reaches_the_sdk_and_survives_a_restart(self):
        self.start()
        self.panel("rename", "Living:Room")
        self.wait_for_log("Starting Avahi advertising, name: Living:Room,")
        self.panel("rename", "Living:Room")  # the same again is no change
        self.assertEqual(self.display_name(), "Kitchen")  # identity is that of the start
        self.assertEqual(self.stop()[0], 0)
        self.start()
        self.assertEqual(self.display_name(), "Living:Room")
        self.assertEqual(self.log_count("Received event = DEVICENAME:Living:Room"), 1)

    def test_another_source_takes_the_output_until_the_next_session(self):
        self.start()
        self.play(self.music)
        self.panel("take-output")
        self.wait_for_status("Stopped")
        self.wait_for_log("Stopping playback")
        wait_for("nothing shown", lambda: "xesam:title" not in self.metadata())
        self.play(self.music)
        self.assertEqual(len(self.recordings()), 2)

    def test_a_refused_output_plays_nothing_and_the_next_request_does(self):
        self.start()
        self.panel("refuse-next")
        self.assertEqual(self.connect(self.music), 200)
        self.wait_for_log("Playback stopped and renderer disconnected")
        self.assertEqual(self.recordings(), [])
        self.play(self.music)

    def test_standby_and_a_shutdown_request_end_playback_but_not_the_service(self):
        self.start()
        for request in "standby", "shutdown":
            self.play(self.music)
            self.panel(request)
            self.wait_for_status("Stopped")
            wait_for("output closed", lambda: len(self.recordings()) == self.log_count(
                "Stopping playback"))
        self.assertEqual(self.display_name(), "Kitchen")

    def test_volume_is_kept_across_a_restart(self):
        self.start()
        self.play(self.music)
        self.player("volume", "0.35")
        wait_for("mixer at 35 %", lambda: "[35%]" in self.amixer("sget", "Master"))
        self.stop()
        self.amixer("sset", "Master", "90%")
        self.start()
        self.play(self.music)
        wait_for("mixer at 35 % again", lambda: "[35%]" in self.amixer("sget", "Master"))


class Network(HostTest):
    def test_a_start_without_a_network_waits_for_one(self):
        namespace = ["unshare", "--net", "--map-root-user"]
        if subprocess.run([*namespace, "true"], capture_output=True).returncode != 0:
            self.skipTest("no network namespaces here")
        self.write_settings(host__allow_loopback=0)
        with open(self.log_path, "ab") as log:
            self.daemon = subprocess.Popen([*namespace, *program("nuvio-connect")],
                                           env=self.environment, stdout=log, stderr=log)
        wait_for("panel answers", lambda: self.run_tool(PANEL, "status", check=False))
        self.assertEqual(self.log_count("Start Nuvio_Connect process"), 0)
        self.assertEqual(self.log_count("NuvioConnect: NUVIO CONNECT CREATED"), 0)
        self.panel("network", "up", "2")
        self.wait_for_log("NetWork Configuration is Successful")
        self.wait_for_log("Nuvio Connect has been initialized")
        self.assertEqual(self.stop()[0], 0)


class Bus(HostTest):
    def test_without_a_bus_the_device_plays_and_picks_it_up_when_it_comes_back(self):
        self.start()
        self.end(self.bus)
        (self.folder / "bus").unlink(missing_ok=True)
        self.assertEqual(self.connect(self.music), 200)
        self.wait_for_log("Playback state changed")
        self.start_bus()
        self.wait_for_status("Playing")
        wait_for("title", lambda: "track 0" in self.metadata())
