"""What it takes to have a device of one's own on this machine: its settings, a message bus, and the
requests of a controller. For tests and the bench."""
import http.client
import json
import subprocess


def start_bus(folder):
    """A session bus in the folder; its process and its address, which is soon there."""
    address = f"unix:path={folder}/bus"
    process = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--nopidfile",
                                f"--address={address}"], stderr=subprocess.DEVNULL)
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


def request(port, method, path, body=None, timeout=30):
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
