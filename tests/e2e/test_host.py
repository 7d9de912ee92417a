"""The device as the machine's owner sees it: front panel, other sources, network, what plays now."""
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess

from device import (CD, EMULATOR, PANEL, PATIENCE, DeviceTest, program, signal_samples, wait_for,
                    write_wav)


class HostTest(DeviceTest):
    def setUp(self):
        super().setUp()
        for n in range(2):
            self.track(f"track {n}.wav", 40, n * CD)

    def panel(self, *words):
        return self.run_tool(PANEL, *words)

    def metadata(self):
        return self.player("metadata") or ""

    def status(self):
        return json.loads(self.panel("status", "--json"))

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
                re.findall(r"(?m)^(ok|warn|FAIL) +(\w+) +(.*)$", result.stdout)}

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
            self.assertRegex(str(self.findings()["settings"]), r"'warn'.* in use by nuvio-connect "
                             rf"\(process {self.daemon.pid}\); if that is another device")

    def test_it_names_who_holds_the_port(self):
        with socket.create_server(("", self.port)):
            self.assertRegex(str(self.findings()["settings"]),
                             rf"'FAIL'.* is in use by python\S* \(process {os.getpid()}\)")
        for key, value, problem in (
                ("feature.nuvio_connect.http_port", 80, "for root alone"),
                ("feature.nuvio_connect.http_port", "80o0", r"settings.conf:4: .* not a port"),
                ("host.hook.paused", "relay off", r"settings.conf:\d+: .* neither a command"),
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
        shutil.rmtree(self.folder / "card")
        self.card("create", "--buffer", "26")
        (self.folder / "alsa.conf").unlink()
        self.write_settings(**self.settings)
        self.assertRegex(str(self.findings()["output"]), "'warn', .*; buffer 26 ms, .* may break off")


class Panel(HostTest):
    def test_name_and_volume_are_kept_across_a_restart(self):
        self.start()
        self.panel("rename", "Küche: # 1 = a")
        self.wait_for_log("Starting Avahi advertising, name: Küche: # 1 = a,")
        self.panel("rename", "Küche: # 1 = a")  # the same again is no change
        self.assertEqual(self.display_name(), "Kitchen")  # identity is that of the start
        self.play(self.music)
        self.player("volume", "0.35")
        self.panel("mute")
        wait_for("mixer at 35 %", lambda: "[35%] [off]" in self.amixer("sget", "Master"))
        self.assertEqual(self.stop()[0], 0)
        self.amixer("sset", "Master", "90%", "unmute")
        self.start()
        self.assertEqual(self.display_name(), "Küche: # 1 = a")
        self.assertEqual(self.log_count("Received event = DEVICENAME:Küche: # 1 = a"), 1)
        self.play(self.music)
        wait_for("the same again", lambda: "[35%] [off]" in self.amixer("sget", "Master"))

    def test_the_output_is_taken_refused_and_given_up_but_the_service_goes_on(self):
        self.start()
        self.panel("refuse-next")
        self.assertEqual(self.connect(self.music), 200)
        self.wait_for_log("Playback stopped and renderer disconnected")
        self.assertEqual((self.recordings(), self.status()["sessions"]["active"]), ([], False))
        for number, request in enumerate(("take-output", "standby", "shutdown"), 1):
            self.play(self.music)
            self.assertTrue(self.status()["sessions"]["active"])
            self.panel(request)
            self.wait_for_status("Stopped")
            self.wait_for_log("Stopping playback", number)
            wait_for("nothing shown", lambda: "xesam:title" not in self.metadata())
            self.assertFalse(self.status()["sessions"]["active"])
            self.assertEqual(len(self.recordings()), number)
        self.assertEqual(self.display_name(), "Kitchen")


class Status(HostTest):
    def metrics(self):
        """By name and labels."""
        page = subprocess.run(["curl", "-sSi", "--unix-socket", self.folder / "metrics",
                               "http://localhost/metrics"], capture_output=True, text=True,
                              timeout=PATIENCE, check=True).stdout
        head, body = page.split("\n\n")
        self.assertRegex(head, r"^HTTP/1.1 200 OK\nContent-Type: text/plain; version=0.0.4;")
        self.assertRegex(body, r'^((# (HELP|TYPE) \w+ .+|\w+(\{.+="(\\.|[^"])*"\})? [-+.e\d]+)\n)+$')
        return dict(line.rsplit(" ", 1) for line in body.splitlines() if line[0] != "#")

    def test_it_tells_what_the_card_was_granted_and_what_went_wrong(self):
        (self.folder / "metrics").touch()
        self.write_settings(host__metrics_socket=self.folder / "metrics")
        self.start()
        self.wait_for_log("no metrics at")  # a file in its place stays
        self.stop()
        (self.folder / "metrics").unlink()
        with socket.socket(socket.AF_UNIX) as left:  # as by a process that died
            left.bind(str(self.folder / "metrics"))
        self.start()
        peers = [socket.socket(socket.AF_UNIX) for _ in range(6)]  # that have nothing to say
        for peer in peers:
            self.addCleanup(peer.close)
            peer.connect(str(self.folder / "metrics"))
        idle = self.status()
        self.assertEqual((idle["state"], idle["track"], idle["format"], idle["output"]),
                         ("stopped", None, None, None))
        self.assertEqual((idle["underruns"], idle["sessions"]), (0, {"taken": 0, "active": False}))
        title = 'a "quoted\\ tra\u00e7k'
        self.track(f"{title}.wav", 20)
        self.play(self.music / f"{title}.wav")
        self.card("underrun")
        wait_for("the underrun", lambda: self.status()["underruns"] > 0)
        playing = wait_for("track", lambda: self.status()["track"] and self.status())
        self.assertEqual(playing["track"]["title"], title)
        self.assertEqual(playing["format"], {"rate": CD, "bits": 16, "channels": 2})
        self.assertEqual((playing["output"]["granted"], playing["output"]["path"]),
                         (playing["format"], "Simulated sound card"))
        self.assertIsNone(playing["output"]["bit_exact"])
        self.assertEqual(playing["sessions"], {"taken": 1, "active": True})
        metrics = {name.removeprefix("nuvio_connect_"): value
                   for name, value in self.metrics().items()}
        for name, value in (('state{state="playing"}', "1"), ('state{state="paused"}', "0"),
                            ("card_rate_hertz", str(CD)), ("sessions_total", "1")):
            self.assertEqual(metrics[name], value, name)
        self.assertGreaterEqual(int(metrics["underruns_total"]), playing["underruns"])
        self.assertNotIn("bit_exact", metrics)  # nobody knows
        self.card("gone")
        wait_for("stopped", lambda: self.status()["state"] == "stopped")
        self.assertRegex(self.status()["last_error"]["text"], "playback error|No such device")
        self.assertIsNone(self.status()["output"])
        self.assertEqual(self.status()["last_played"],
                         {"title": title, "verified": "no sum in the file"})
        self.card("plug")
        (self.music / "other").mkdir()
        write_wav(self.music / "other/32.wav", signal_samples(32000 * 5, 0, 32000), 32000)
        self.play(self.music / "other")
        wait_for("the core's word", lambda: (self.status()["output"] or {}).get("bit_exact") is False)
        self.assertIn("32 kHz/16 bit, converted to 48 kHz/24 bit", self.status()["output"]["why"])
        self.play(self.music / f"{title}.wav")
        wait_for("as it is", lambda: (self.status()["output"] or {"bit_exact": 0})["bit_exact"] is None)


class Hooks(HostTest):
    settings = {"host__hook__off_delay": 6, "host__hook__session": "lamp@.service"}

    @staticmethod
    def is_over(process):
        try:
            return ") Z " in pathlib.Path(f"/proc/{process}/stat").read_text()
        except OSError:
            return True

    def test_they_follow_the_device_and_one_that_hangs_holds_up_nothing(self):
        told, hung = self.folder / "told", self.folder / "hung"
        hook, systemctl = self.folder / "hook", self.folder / "systemctl"
        hook.write_text(f'#!/bin/sh\necho "$NUVIO_EVENT $NUVIO_VALUE" >> {told}\n'
                        f'[ $NUVIO_EVENT != volume ] || {{ sleep 999 & echo $! >> {hung}; yes; }}')
        systemctl.write_text(f'#!/bin/sh\necho "${{*##* }}" >> {told}; exit 5')
        for script in hook, systemctl:
            script.chmod(0o755)
        self.environment["PATH"] = f"{self.folder}:{os.environ['PATH']}"
        self.write_settings(**self.settings, **{f"host__hook__{event}": hook for event in (
            "playing", "paused", "stopped", "volume")})
        lines = lambda *kinds: [line for line in told.read_text().split("\n")  # noqa: E731
                                if line.startswith(kinds)]
        self.start()
        wait_for("how things stand", lambda: told.exists() and len(lines("stopped", "lamp")) == 2)
        self.player("volume", "0")  # the first that there is
        wait_for("a hook that hangs", lambda: lines("volume 0"))
        self.play(self.music)
        wait_for("playing", lambda: lines("playing") and lines("lamp@begin.service"))
        for words, status in (("pause", "Paused"), ("play", "Playing")):  # no click between
            self.player(words)
            self.wait_for_status(status)
        for percent in 10, 30, 70:
            self.player("volume", str(percent / 100))
        wait_for("the last volume", lambda: lines("volume")[1:])
        self.assertEqual(lines("volume")[1:], ["volume 70"])
        self.player("pause")
        wait_for("paused", lambda: lines("paused"))
        self.assertEqual(self.stop()[0], 0)
        self.assertEqual(lines("p", "s"), ["stopped stopped", "playing playing", "paused paused",
                                           "stopped stopped"])
        self.assertEqual(lines("lamp"), [f"lamp@{when}.service" for when in ("end", "begin", "end")])
        self.assertEqual((self.log_count("host.hook.session: ended with status 5"),
                          self.log_count("host.hook.volume: killed")), (1, 1))
        for child in hung.read_text().split():
            wait_for("the end of a hook's child", lambda child=child: self.is_over(child))


class Network(HostTest):
    # The other end of each pair stays up, so that the pair has a carrier.
    MAKE = """ip link set lo up
              mount -t tmpfs tmpfs /sys/class/net
              mkdir -p /sys/class/net/wl0/wireless
              for name in w0 wl0; do
                  ip link add $name type veth peer ${name}p
                  ip link set ${name}p up
              done
              exec "$@" """

    def test_a_start_waits_for_an_interface_that_is_up_and_has_an_address(self):
        inside = ["unshare", "--net", "--mount", "sh", "-ec", self.MAKE, "sh"]
        if os.geteuid() != 0 or subprocess.run([*inside, "true"], capture_output=True).returncode:
            self.skipTest("no network namespaces or virtual Ethernet here")
        self.write_settings(host__allow_loopback=0)
        with open(self.log_path, "ab") as log:
            self.daemon = subprocess.Popen([*inside, *program("nuvio-connect")],
                                           env=self.environment, stdout=log, stderr=log)
        self.wait_for_log("MAIN TO START NUVIO CONNECT END")
        told = []
        for command, *alert in (
                ["link set w0 up"], ["address add 192.0.2.1/24 dev w0", "1 , Status = 1"],
                ["address add 192.0.2.2/24 dev w0"],
                ["link set w0p down", "1 , Status = 0"],  # the cable is pulled
                ["link set w0p up", "1 , Status = 1"], ["link delete w0", "1 , Status = 0"],
                ["link set wl0 up"], ["address add 2001:db8::1/64 dev wl0 nodad", "2 , Status = 1"],
                ["address flush dev wl0", "2 , Status = 0"]):
            self.assertTrue(told or "NUVIO CONNECT CREATED" not in self.log())
            subprocess.run(["nsenter", f"--net=/proc/{self.daemon.pid}/ns/net", "ip",
                            *command.split()], check=True)
            told += alert
            wait_for(f"{command}: {told}", lambda: re.findall(r"NeshAlert iface = (. , Status = .)",
                                                              self.log()) == told)
        self.wait_for_log("Nuvio Connect has been initialized")
        self.assertEqual(self.stop()[0], 0)
