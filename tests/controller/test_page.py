"""The page in real browsers, as people use it: a phone and a second screen, two devices, music."""
import json
import os
import pathlib
import signal
import subprocess

import axe
from house import ALBUMS, SESAME, HouseTest, WebServer, wait_for
from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException
from selenium.webdriver import ActionChains, ChromeOptions, Keys
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

# Where pictures of the screens go, when they are wanted: docs/pictures.
PICTURES = os.environ.get("NUVIO_PICTURES")
if PICTURES:
    ALBUMS[2:] = [("Still Rooms", "Vera Holm", (120, 60, 110)), ("Low Tide", "Ada Fern", (40, 110, 100)),
                  ("Paper Lanterns", "The Quiet Trains", (170, 60, 60)), ("Winter Ferry", "Ada Fern", (60, 70, 130))]
SCREENS = {"phone": (390, 780), "desktop": (1280, 760)}
PAGE_BYTES = 100_000

# Beside axe-core's rules: what a finger presses is large enough, and nothing is cut off at the side.
AUDIT = """
const wrong = [...document.querySelectorAll("a[href], button, input, select")].filter((node) => {
  const box = node.getBoundingClientRect();
  return node.checkVisibility() && !node.matches(".skip") && (box.height < 44 || box.width < 44);
}).map((node) => "too small: " + node.outerHTML.slice(0, 80));
return document.documentElement.scrollWidth > innerWidth ? [...wrong, "wider than the screen"] : wrong;
"""
AXE = """
axe.run(document, {resultTypes: ["violations"]}).then((result) => arguments[0](
  result.violations.map((rule) => [rule.impact, rule.id, ...rule.nodes.map((node) => node.html)])));
"""


class Browser:
    def __init__(self, test, kind, url=None, headers=None):
        options = ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for argument in ("headless=new", "no-sandbox", "disable-dev-shm-usage", "disable-gpu", "hide-scrollbars",
                         "host-resolver-rules=MAP *.test 127.0.0.1", "ignore-certificate-errors",
                         f"user-data-dir={test.folder}/{kind}"):
            options.add_argument(f"--{argument}")
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))
        test.addCleanup(self.driver.quit)
        width, height = SCREENS[kind]
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": kind == "phone"})
        self.driver.execute_cdp_cmd("Emulation.setTouchEmulationEnabled", {"enabled": kind == "phone"})
        self.kind = kind
        self.url = url or f"http://127.0.0.1:{test.port}/"
        self.driver.execute_cdp_cmd("Network.enable", {})
        self.driver.execute_cdp_cmd("Network.setExtraHTTPHeaders", {"headers": headers or {}})
        self.driver.get(self.url)
        self.driver.execute_cdp_cmd("Network.setExtraHTTPHeaders", {"headers": {}})

    def open(self, screen):
        self.driver.execute_script("location.hash = arguments[0]", screen)
        wait_for(screen, lambda: self.run("return document.querySelector('main h1') !== null"))

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def text(self):
        return self.run("return document.body.innerText")

    def shows(self, text):
        wait_for(f"on the {self.kind}: {text}", lambda: text in self.text())

    def press(self, label):
        """What has this name; the page may make it anew at any moment, so it is pressed in one step."""
        script = """const it = [...document.querySelectorAll("button, a")].find((each) =>
                        (each.getAttribute("aria-label") || each.innerText.trim()) === arguments[0]);
                    if (it) it.click();
                    return Boolean(it);"""
        wait_for(f"something called {label}", lambda: self.run(script, label))

    def slide(self, selector, value):
        self.run("""const it = document.querySelector(arguments[0]); it.value = arguments[1];
                    it.dispatchEvent(new Event("input")); it.dispatchEvent(new Event("change"));""",
                 selector, value)

    def drag(self, selector, *events):
        """A finger on a slider: parts of its width, and scripts to run between them."""
        left, top, width, height = wait_for(selector, lambda: self.run("""
            const box = document.querySelector(arguments[0])?.getBoundingClientRect();
            return box && [box.left, box.top, box.width, box.height]""", selector))
        kind = "touchStart"
        for event in events:
            if isinstance(event, str):
                self.run(event)
                continue
            self.driver.execute_cdp_cmd("Input.dispatchTouchEvent", {
                "type": kind, "touchPoints": [{"x": left + width * event, "y": top + height / 2}]})
            kind = "touchMove"
        self.driver.execute_cdp_cmd("Input.dispatchTouchEvent", {"type": "touchEnd", "touchPoints": []})

    def toast(self):
        return self.run("return document.getElementById('toast').textContent")

    def value(self, selector):
        return self.run("const it = document.querySelector(arguments[0]); return it && Number(it.value)", selector)

    def titles(self):
        return self.run("""return [...document.querySelectorAll("main ul.list li .cut:first-child")]
                               .map((each) => each.textContent)""")

    def show(self, screen, scheme):
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": scheme}, {"name": "prefers-reduced-motion", "value": "reduce"}]})
        self.open("#" + screen)
        wait_for("all of it", lambda: self.run("""const found = document.querySelector("#found");
            return (!found || found.childElementCount > 0) && [...document.images].every((each) => each.complete)"""))

    def judge(self):
        """What is wrong with the screen that is shown."""
        self.run(axe.PLACE.read_text() + "; window.axe = axe;")
        return self.run(AUDIT) + self.driver.execute_async_script(AXE)

    def faults(self):
        """What the browser has complained of on the page, but for a controller that is away."""
        return [line["message"] for line in self.driver.get_log("browser")
                if line["message"].startswith(self.url) and "WebSocket" not in line["message"]
                and "ERR_" not in line["message"]]


class Page(HouseTest):
    def play_album(self, browser, number):
        browser.open("#library")
        browser.shows(ALBUMS[number][0])
        browser.run("[...document.querySelectorAll('.grid a')].find((a) => a.innerText.includes(arguments[0]))"
                    ".click()", ALBUMS[number][0])
        browser.shows(f"{ALBUMS[number][0]} 2")

    def test_a_phone_finds_devices_plays_an_album_and_drives_it(self):
        kitchen = self.devices[0]
        self.start_all()
        phone = Browser(self, "phone")
        phone.shows("Attic")
        self.assertLess(phone.run("""return performance.getEntriesByType("resource").concat(
            performance.getEntriesByType("navigation")).reduce((sum, each) => sum + each.transferSize, 0)"""),
            PAGE_BYTES)
        phone.press("Choose Kitchen")
        self.play_album(phone, 0)
        phone.press("Play")
        wait_for("the album's beginning on the card", lambda: self.heard(kitchen, 0, 0))
        self.command("loop", "Kitchen", "all")  # it plays as long as this takes

        phone.open("#playing")
        phone.shows("44.1 kHz · 16 bit · stereo · bit-exact")
        self.assert_position(kitchen, lambda: phone.value("#seek") / 1000)
        before = phone.value("#seek")
        wait_for("a running position", lambda: phone.value("#seek") > before + 300)
        phone.slide("#seek", 15_000)
        wait_for("the sought position", lambda: 15 <= kitchen.position() < 19)

        phone.slide("input[data-key^=volume]", 35)
        wait_for("the card's volume", lambda: "[35%]" in kitchen.amixer("sget", "Master"))
        kitchen.amixer("sset", "Master", "20%")
        wait_for("the slider", lambda: phone.value("input[data-key^=volume]") == 20)
        phone.slide("input[data-key^=volume]", 18)
        wait_for("what the mixer has", lambda: phone.value("input[data-key^=volume]") == 15)
        phone.press("Pause")
        wait_for("a pause", lambda: kitchen.player("status") == "Paused")

        second = Browser(self, "desktop")
        second.open("#playing")
        second.press("Play")
        wait_for("music again", lambda: kitchen.player("status") == "Playing")
        wait_for("both to show it", lambda: all(
            each.run("return document.querySelector('[data-key=toggle]').ariaLabel") == "Pause"
            for each in (phone, second)))
        phone.shows("Before: Night Boats 1 · not verified: sought or paused")
        self.assertEqual(phone.faults() + second.faults(), [])

    def test_a_finger_on_the_volume_asks_at_a_pace_and_a_refused_press_is_taken_back(self):
        kitchen = self.devices[0]
        self.start_all()
        self.command("play", "Kitchen", "night boats")
        self.command("loop", "Kitchen", "all")  # it plays as long as this takes
        phone = Browser(self, "phone")
        phone.shows("Playing")
        # The page's time stands still but where the test moves it: no patience of the page's ends.
        phone.run("""const asked = window.asked = [], ask = window.fetch;
                     window.fetch = (path, options) => {
                       if (path.endsWith("/command")) asked.push(JSON.parse(options.body).volume);
                       return ask(path, options);
                     };
                     window.clock = performance.now() + 1000;
                     performance.now = () => window.clock;""")
        volume = "main input[data-key^=volume]"
        phone.drag(volume, *(n / 40 for n in range(8, 18)), "window.clock += 150",
                   *(n / 40 for n in range(18, 30)), 0.9)
        asked = phone.run("return asked")
        self.assertEqual(len(asked), 3, "the first, one when it was time, the one it was let go at")
        self.assertEqual(asked, sorted(asked))
        wait_for("the last one on the card", lambda: f"[{asked[-1] // 5 * 5}%]" in kitchen.amixer("sget", "Master"))

        phone.driver.execute_cdp_cmd("Network.setBlockedURLs", {"urls": ["*/command"]})
        phone.press("Pause Kitchen")
        wait_for("a failure", lambda: "No connection to the controller" in phone.toast())
        wait_for("it still plays", lambda: phone.run(
            "return document.querySelector('main [data-key^=play-]').ariaLabel") == "Pause Kitchen")
        self.assertEqual(kitchen.player("status"), "Playing")
        self.assertEqual(phone.faults(), [])

    def test_the_queue_is_edited_by_finger_and_by_key(self):
        self.start_all()
        self.command("play", "Kitchen", "night boats")
        phone = Browser(self, "phone")
        self.play_album(phone, 1)
        phone.press("Add to queue")
        phone.open("#queue")
        order = ["Night Boats 1", "Night Boats 2", "Köln, früh 1", "Köln, früh 2"]
        wait_for("four tracks", lambda: phone.titles() == order)
        phone.run("document.querySelector('.skip').focus()")
        ActionChains(phone.driver).send_keys(Keys.ENTER, *[Keys.TAB] * 12, Keys.ARROW_UP).perform()
        order[2:] = reversed(order[2:])
        wait_for("the last one before the third", lambda: phone.titles() == order)

        def drag():
            rows = phone.driver.find_elements(By.CSS_SELECTOR, ".drag")
            try:  # news may make the list anew before it is held
                ActionChains(phone.driver).click_and_hold(rows[3]).move_to_element_with_offset(
                    rows[1], 0, -15).pause(0.2).release().perform()
            except StaleElementReferenceException:
                return False
            return True
        wait_for("the row in hand", drag)
        order.insert(1, order.pop())
        wait_for("the last one second", lambda: phone.titles() == order)
        phone.press("Remove Night Boats 2")
        order.remove("Night Boats 2")
        wait_for("one less", lambda: phone.titles() == order)
        queue = json.loads(self.ask("/api/devices/Kitchen/queue")[2])["items"]
        self.assertEqual([item["title"] for item in queue], order)
        self.assertEqual(phone.faults(), [])

    def test_what_comes_goes_and_fails_is_shown_with_what_to_do(self):
        kitchen, attic = self.devices
        self.start_all()
        self.command("play", "Kitchen", "night boats")
        self.command("loop", "Kitchen", "all")  # it plays as long as this takes
        phone = Browser(self, "phone")
        phone.shows("Night Boats 1")
        kitchen.run_tool(pathlib.Path(__file__).parents[2] / "tools/panel/panel", "rename", "Larder")
        phone.shows("Larder")
        phone.open("#queue")
        wait_for("the queue", lambda: len(phone.titles()) == 2)
        phone.open("#devices")
        phone.driver.execute_async_script("navigator.serviceWorker.ready.then(arguments[0])")
        attic.daemon.send_signal(signal.SIGSTOP)
        self.ask("/api/devices/look", {})
        phone.shows("Can't be reached")
        attic.daemon.send_signal(signal.SIGKILL)
        attic.daemon.wait()
        phone.shows("Not on the network")
        self.assertRegex(self.command("devices"), r"(?m)^Attic +not on the network$")
        phone.press("Choose Attic")
        phone.open(f"#library/album/{self.first_album()['id']}")
        phone.press("Play")
        wait_for("an answer", lambda: phone.toast() not in ("", "Asking Attic …"))
        self.assertEqual(phone.toast(), "the device is not on the network: is it switched on?")
        [refusal] = phone.faults()
        self.assertIn("409 (Conflict)", refusal)
        phone.open("#devices")
        phone.press("Choose Larder")
        attic.start()
        phone.shows("Free")

        self.stop_controller(signal.SIGKILL)
        phone.shows("No connection to the controller")
        phone.driver.refresh()
        phone.shows("No connection to the controller")
        phone.shows("Larder")
        phone.open("#queue")
        self.assertEqual(phone.titles(), ["Night Boats 1", "Night Boats 2"])
        phone.open("#devices")
        before = kitchen.position()
        wait_for("music all the while", lambda: abs(kitchen.position() - before) > 1)
        self.start_controller()
        wait_for("the connection", lambda: "No connection" not in phone.text())
        wait_for("the channel", lambda: self.shown("Larder").get("connected"))
        phone.press("Pause Larder")
        wait_for("a pause", lambda: kitchen.player("status") == "Paused")

        kitchen.play(kitchen.folder / "library/1/0.flac")  # as another controller does
        phone.shows("Another controller plays here")
        self.assertRegex(self.command("devices"), r"(?m)^Larder +used by another controller$")
        self.assertIsNone(self.command("pause", "Larder", check=False))
        self.command("play", "Larder", "köln")
        wait_for("taken back", lambda: self.shown("Larder").get("playback") == "playing")
        self.assertEqual(phone.faults(), [])

    def test_every_screen_can_be_read_and_reached_and_runs_nothing_that_a_file_says(self):
        if not axe.PLACE.exists():
            give_up = self.fail if "CI" in os.environ else self.skipTest
            give_up("axe-core is not there: npm fetches it from the network")
        self.start_all()
        browsers = {kind: Browser(self, kind) for kind in SCREENS}
        for browser in browsers.values():
            browser.shows("Free")
            self.judge_screens(browser, "queue", "playing")
        self.command("play", "Kitchen", "night boats")
        self.command("queue", "Kitchen", "add", self.music)
        for browser in browsers.values():
            browser.open("#devices")
            browser.shows("Night Boats 1")
            album = f"library/album/{self.first_album()['id']}"
            self.judge_screens(browser, "devices", "library", album, "library/artist/1",
                               "library/artists", "library/folders", "library/search/b", "library/search/zz",
                               "library/search/http%3A%2F%2Fradio", "queue", "playing")
            browser.open("#library")
            browser.shows(ALBUMS[2][0])
            self.assertEqual(browser.run("return document.querySelectorAll('main script, [onerror]').length"), 0)
            self.assertEqual(browser.faults(), [])

    def judge_screens(self, browser, *screens):
        for screen in screens:
            for scheme in "dark", "light":
                browser.show(screen, scheme)
                # What is being made anew just then is looked at once more.
                found = browser.judge() and browser.judge()
                self.assertEqual(found, [], (browser.kind, screen, scheme))
            if PICTURES and screen in ("devices", "library", "queue", "playing"):
                browser.driver.save_screenshot(f"{PICTURES}/{browser.kind}-{screen}.png")


PROXY = """server {{
    listen 127.0.0.1:{port} ssl; server_name music.test; ssl_certificate {d}/cert.pem; ssl_certificate_key {d}/key.pem;
    location /music {{
        proxy_pass http://127.0.0.1:{controller}; proxy_http_version 1.1; proxy_set_header Host $http_host;
        proxy_set_header Upgrade $http_upgrade; proxy_set_header Connection "upgrade"; proxy_read_timeout 1h;
    }}
}}"""


class BehindAProxy(HouseTest):
    rooms = ["Kitchen"]
    options = ["--password", "sesame", "--base", "/music", "--public-name", "music.test"]

    def test_the_page_lives_below_a_path_of_a_tls_proxy_and_asks_for_its_password_once(self):
        self.start_all()
        folder = self.folder / "proxy"
        folder.mkdir()
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=music.test", "-days",
                        "9", "-keyout", "key.pem", "-out", "cert.pem"], cwd=folder, check=True, capture_output=True)
        proxy = WebServer(str(folder), PROXY, controller=self.port)
        self.addCleanup(proxy.kill)
        url = f"https://music.test:{proxy.port}/music"
        phone = Browser(self, "phone", url, SESAME)
        phone.shows("Kitchen")
        self.assertEqual(phone.run("return document.baseURI"), url + "/")
        [cookie] = phone.driver.get_cookies()
        self.assertEqual((cookie["path"], cookie["secure"]), ("/music/", True))
        phone.open(f"#library/album/{self.first_album()['id']}")
        phone.press("Play")
        wait_for("sound", lambda: self.shown("Kitchen").get("position_ms", 0) > 500)
        phone.open("#playing")
        phone.press("Pause")
        wait_for("a pause", lambda: self.shown("Kitchen").get("playback") == "paused")
        self.assertEqual(phone.faults(), [])
        self.stop_controller()
        self.start_controller()
        phone.shows("asks for its password: load this page again")
