"""What it takes to have a device of one's own on this machine: its settings, a message bus, its
surroundings, and the requests of a controller. For tests and the bench."""
import contextlib
import http.client
import json
import os
import random
import socket
import subprocess
import time

PATIENCE = 30  # s, for what should take a moment: sanitizers and busy machines are slow


def wait_for(what, condition, seconds=PATIENCE, pause=0.02):
    """Returns the condition's first true value; fails naming `what` when there is none in time."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(pause)
    raise AssertionError(f"not within {seconds} s: {what}")


def free_port():
    """One of those that the kernel gives to no client, so that none gets in the daemon's way, and
    that nobody else who asks here gets before it is in use: he finds UDP's of that number taken, for
    as long as this process lives."""
    while True:
        port = random.randrange(20_000, 30_000)
        mark = socket.socket(type=socket.SOCK_DGRAM)
        with socket.socket() as probe, contextlib.suppress(OSError):
            probe.bind(("", port))
            mark.bind(("", port))
            mark.detach()
            return port
        mark.close()


def end(process):
    """The exit status of a process that is asked to end, or made to."""
    if process.poll() is None:
        process.terminate()
    try:
        return process.wait(PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        return process.wait()


def environment(folder, card, **more):
    """Of the device of `folder`, on the card of that ALSA configuration."""
    return dict(os.environ, ALSA_CONFIG_PATH=str(card), NUVIO_MUSIC_FOLDERS="/",
                NUVIO_SETTINGS=str(folder / "settings.conf"),
                DBUS_SESSION_BUS_ADDRESS=f"unix:path={folder}/bus", **more)


def answers(port, process):
    """Whether the device does; fails when it has ended."""
    if process.poll() is not None:
        raise AssertionError(f"the daemon ended with {process.returncode}")
    with contextlib.suppress(OSError):
        return request(port, "GET", "/get-display-info")[0] == 200
    return False


def start_bus(folder):
    """A session bus in the folder: its process, and its address."""
    address = f"unix:path={folder}/bus"
    process = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--nopidfile",
                                f"--address={address}"], stderr=subprocess.DEVNULL)
    wait_for("message bus", (folder / "bus").exists)
    return process, address


def write_settings(folder, port, **more):
    """settings.conf of a device that keeps its state in the folder; '__' in a name is a dot."""
    settings = {
        "feature.nuvio_connect": 1,
        "feature.nuvio_connect.app_id": "own-app",
        "feature.nuvio_connect.app_secret": "own-secret",
        "feature.nuvio_connect.http_port": port,
        "feature.nuvio_connect.log": 1,
        "alsa.output_device": "default",
        "host.allow_loopback": 1,
        "host.state_dir": folder / "state",
    }
    settings.update({name.replace("__", "."): value for name, value in more.items()})
    (folder / "settings.conf").write_text(
        "".join(f"{name} = {value}\n" for name, value in settings.items()))


def request(port, method, path, body=None, timeout=PATIENCE):
    """Status and body of the answer."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=timeout)
    try:
        connection.request(method, path, body)
        answer = connection.getresponse()
        return answer.status, answer.read()
    finally:
        connection.close()


def connect(port, content, session="own", expiry=4102444800, active=True, remote="",
            remote_expiry=None):
    """Hands over a session as a controller does; the HTTP status. `remote`: where it is controlled."""
    return request(port, "POST", "/connect-to-nconnect", json.dumps({
        "session_id": session, "become_active": active,
        "jwt_api": {"endpoint": str(content), "jwt": "api", "exp": expiry},
        "jwt_nconnect": {"endpoint": remote, "jwt": "nc", "exp": remote_expiry or expiry}}))[0]
