"""The console's password and its https."""

import base64
import ssl
import subprocess

import pytest
import websocket

from beacon_web import Web, next_text
from board import EMULATOR
from conftest import BUILD, wait_until

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

PASSWORD = "correct horse; \"ä\""
OPEN = ["/login", "/login.js", "/style.css", "/icon.svg", "/healthz"]
CLOSED = ["/api/v1/status", "/api/v1/settings/wifi", "/api/v1/recordings", "/metrics", "/app.js",
          "/index.html", "/login.html", "/files/external/a.mp4", "/login/", "/nothing"]


@pytest.fixture
def serve(board, tmp_path):
    """serve(option, ...): beacon-web with the password on a board of its own, without a daemon."""

    def run(*options):
        file = board.write("/tmp/password", PASSWORD + "\r\nthe rest does not matter\n")
        file.chmod(0o600)
        return Web(board, tmp_path, "--password-file", "/tmp/password", *options).wait_ready()

    return run


def log_in(web, password=PASSWORD):
    return web.change("POST", "/login", {"password": password})


def cookie_of(reply):
    return reply.headers["set-cookie"].partition(";")[0]


def upgrade(web, **headers):
    return websocket.create_connection(
        f"ws://{web.address}/live", socket=web.connect(), timeout=60, host=web.address,
        origin=f"http://{web.address}", header=headers)


def test_nothing_is_served_without_the_password(serve):
    web = serve()
    for path in OPEN:
        assert web.get(path).status == 200, path
    for path in CLOSED:
        for headers in ({}, {"Cookie": "beacon="}, {"Cookie": "beacon=" + "0" * 64}):
            assert web.get(path, **headers).status == 401, (path, headers)
    first = web.get("/")
    assert first.status == 303 and first.headers["location"] == "/login"
    assert web.change("PUT", "/api/v1/recording", {"on": True}).status == 401
    assert web.change("POST", "/api/v1/restart", {}).status == 401
    with pytest.raises(websocket.WebSocketBadStatusException) as refused:
        upgrade(web)
    assert refused.value.status_code == 401


def test_the_password_opens_the_door(serve):
    web = serve()
    for wrong in (PASSWORD[:-1], PASSWORD + "x"):
        reply = log_in(web, wrong)
        assert reply.status == 403 and "set-cookie" not in reply.headers
    reply = log_in(web)
    assert reply.status == 200
    for part in ("; HttpOnly", "; SameSite=Strict", "; Path=/"):
        assert part in reply.headers["set-cookie"]
    assert "Secure" not in reply.headers["set-cookie"]
    cookie = cookie_of(reply)
    assert len(cookie) == len("beacon=") + 64
    assert web.get("/", Cookie=f"other=1; {cookie}").status == 200
    assert web.get("/api/v1/status", Cookie=cookie).status == 200
    assert web.change("POST", "/api/v1/photo", {}, Cookie=cookie).status == 409
    assert next_text(upgrade(web, Cookie=cookie), "console")["login"] is True
    assert cookie_of(log_in(web)) != cookie
    # A foreign page cannot log anybody in or out.
    assert web.change("POST", "/login", {"password": PASSWORD}, Origin="http://evil").status == 403
    assert web.change("POST", "/logout", {}, Cookie=cookie, Origin="http://evil").status == 403
    assert web.change("POST", "/logout", {}, Cookie=cookie).status == 200
    assert web.get("/api/v1/status", Cookie=cookie).status == 401


def read_to_the_end(live):
    with pytest.raises((websocket.WebSocketException, OSError)) as ended:
        for _ in range(40):  # it hears of the board twice a second
            live.recv()
    assert not isinstance(ended.value, (TimeoutError, websocket.WebSocketTimeoutException))


def test_a_logout_ends_what_is_open(serve):
    web = serve()
    cookie, other = cookie_of(log_in(web)), cookie_of(log_in(web))
    live, stays = upgrade(web, Cookie=cookie), upgrade(web, Cookie=other)
    assert web.change("POST", "/logout", {}, Cookie=cookie).status == 200
    read_to_the_end(live)
    for _ in range(4):
        next_text(stays, "board")


def test_a_cookie_is_renewed(serve):
    web = serve()
    cookie = cookie_of(log_in(web))
    for path in ("/", "/api/v1/status"):
        told = web.get(path, Cookie=cookie).headers["set-cookie"]
        assert told.startswith(cookie + ";") and "Max-Age=604800" in told
    reply = web.get("/api/v1/status", Authorization=basic(PASSWORD), Cookie="beacon=" + "0" * 64)
    assert reply.status == 200 and "set-cookie" not in reply.headers


def test_wrong_passwords_have_to_wait(serve):
    web = serve()
    assert web.change("POST", "/login", {"password": 5}).status == 422
    replies = [log_in(web, "a wrong password").status for _ in range(4)]
    assert replies == [403, 403, 403, 429]
    refused = log_in(web)
    assert refused.status == 429 and int(refused.headers["retry-after"]) >= 1
    wait_until(lambda: log_in(web).status == 200, "the end of the wait")


def basic(password, name="prometheus"):
    return "Basic " + base64.b64encode(f"{name}:{password}".encode()).decode()


def test_programs_tell_the_password_with_each_request(serve):
    web = serve()
    right = basic(PASSWORD)
    for path, status in (("/metrics", 200), ("/api/v1/status", 200), ("/snapshot.jpg", 503),
                         ("/stream.mjpeg", 503)):
        for told in (right, right.replace("Basic", "basic"), basic(PASSWORD, "")):
            reply = web.get(path, Authorization=told)
            assert reply.status == status and "set-cookie" not in reply.headers, path
    # Where no program has to be, it opens nothing.
    for path in ("/app.js", "/files/external/a.mp4", "/index.html", "/api/v2/status"):
        assert web.get(path, Authorization=right).status == 401
    assert web.get("/", Authorization=right).status == 303
    with pytest.raises(websocket.WebSocketBadStatusException) as refused:
        upgrade(web, Authorization=right)
    assert refused.value.status_code == 401
    # A foreign page gains nothing by a password that the browser knows.
    foreign = {"Origin": "http://evil.example", "Authorization": right}
    assert web.change("POST", "/api/v1/photo", {}, **foreign).status == 403
    assert web.change("POST", "/api/v1/photo", {}, Authorization=right).status == 409


def test_only_programs_are_asked_for_the_password(serve):
    web = serve()
    for path in ("/metrics", "/snapshot.jpg", "/stream.mjpeg"):
        assert web.get(path).headers["www-authenticate"].startswith("Basic ")
    for path in ("/", "/app.js", "/api/v1/status"):
        assert "www-authenticate" not in web.get(path).headers


@pytest.mark.parametrize("told", [
    basic(PASSWORD[:-1]), basic(PASSWORD + "x"), basic(""), "Basic", "Basic ", "Basic !", "Basic :",
    "Basic " + base64.b64encode(PASSWORD.encode()).decode() + "=", "Bearer " + PASSWORD,
    "Basic " + "QUJD" * 500, basic(PASSWORD).replace("Basic", "Digest")])
def test_a_wrong_password_of_a_program(serve, told):
    assert serve().get("/metrics", Authorization=told).status == 401


def test_programs_with_wrong_passwords_have_to_wait(serve):
    web = serve()
    assert [web.get("/metrics", Authorization=basic("wrong")).status for _ in range(3)] == [401] * 3

    def refused():
        """Both ways in are closed, for as long as the wait lasts."""
        wait_until(lambda: web.get("/metrics", Authorization=basic("wrong")).status == 429,
                   "wrong passwords refused")
        reply = web.get("/metrics", Authorization=basic(PASSWORD))
        return reply.status == 429 and int(reply.headers["retry-after"]) >= 1 and \
            log_in(web).status == 429

    wait_until(refused, "a wait")
    wait_until(lambda: web.get("/metrics", Authorization=basic(PASSWORD)).status == 200,
               "the end of the wait")
    assert log_in(web).status == 200


def test_files_that_are_wrong(board, tmp_path):
    board.write("/tmp/short", "short\n")
    board.write("/tmp/nothing", "")
    for options, said in ((["--password-file", "/tmp/none"],
                           "no password in /tmp/none: No such file or directory"),
                          (["--password-file", "/tmp/short"], "no password in /tmp/short: the first "
                           "line has to be a password of 8 to 200 bytes"),
                          (["--password-file", "/tmp/nothing"], "no password in /tmp/nothing: the "
                           "first line has to be a password of 8 to 200 bytes"),
                          (["--cert", "/tmp/none", "--key", "/tmp/none"],
                           "cannot read /tmp/none: No such file or directory"),
                          (["--cert", "/tmp/short", "--key", "/tmp/short"],
                           "cannot listen at 127.0.0.1:8080: the certificate and the key do not "
                           "work together")):
        web = Web(board, tmp_path, *options)
        assert web.process.wait(60) == 1, options
        assert web.err.read_text() == f"beacon-web: {said}\n"
    alone = subprocess.run([BUILD / "beacon-web", "--cert", "/tmp/none"], capture_output=True,
                           text=True, check=False)
    assert alone.returncode == 2 and alone.stderr.count("\n") == 1


def make_certificate(board, tmp_path, name):
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
                    "-subj", f"/CN={name}", "-addext", "subjectAltName=IP:127.0.0.1",
                    "-keyout", tmp_path / "key.pem", "-out", tmp_path / "cert.pem"],
                   check=True, capture_output=True)
    for file in ("key.pem", "cert.pem"):
        board.write(f"/tmp/{name}-{file}", (tmp_path / file).read_bytes())
    return ssl.create_default_context(cafile=tmp_path / "cert.pem")


def secure_request(web, context, request):
    made = context.wrap_socket(web.connect(), server_hostname="127.0.0.1")
    made.sendall(request.encode())
    made.settimeout(20)
    response = b""
    while piece := made.recv(65536):
        response += piece
    made.close()
    return response.decode("latin-1")


def test_https(board, serve, tmp_path):
    trusted = make_certificate(board, tmp_path, "one")
    web = serve("--cert", "/tmp/one-cert.pem", "--key", "/tmp/one-key.pem")
    assert web.out.read_text() == f"The console is at https://{web.address}/\n"
    assert secure_request(web, trusted, f"GET /healthz HTTP/1.1\r\nHost: {web.address}\r\n"
                          "Connection: close\r\n\r\n").endswith("\r\n\r\nok\n")
    body = '{"password": "correct horse; \\"\\u00e4\\""}'
    said = secure_request(web, trusted, f"POST /login HTTP/1.1\r\nHost: {web.address}\r\n"
                          f"Origin: https://{web.address}\r\nX-Beacon: 1\r\nConnection: close\r\n"
                          "Content-Type: application/json\r\n"
                          f"Content-Length: {len(body)}\r\n\r\n{body}")
    assert said.startswith("HTTP/1.1 200 ") and "; Secure" in said
    cookie = said.partition("set-cookie: ")[2].partition(";")[0]
    live = websocket.create_connection(
        f"wss://{web.address}/live", timeout=60, host=web.address,
        socket=trusted.wrap_socket(web.connect(), server_hostname="127.0.0.1"),
        origin=f"https://{web.address}", header={"Cookie": cookie})
    assert next_text(live, "board")["present"] is False
    # Who speaks plain http, or nothing at all, holds nobody up.
    plain = web.connect()
    plain.sendall(b"GET / HTTP/1.1\r\n\r\n")
    silent = web.connect()
    assert next_text(live, "board")
    silent.close()


def test_a_key_of_another_certificate(board, tmp_path):
    make_certificate(board, tmp_path, "one")
    make_certificate(board, tmp_path, "two")
    web = Web(board, tmp_path, "--cert", "/tmp/one-cert.pem", "--key", "/tmp/two-key.pem")
    assert web.process.wait(60) == 1
    assert web.err.read_text().count("\n") == 1
