#!/usr/bin/python3
"""Lumora in Thunderbird, end to end.

Starts Thunderbird (Debian's, on Xvfb) with a profile of its own: a Local Folders account
holding a message to answer and one whose subject names Mars, an identity to send as, and the
add-on installed with the end-to-end driver beside its own files. `lumora integrate thunderbird`
installs the native host's manifest in the test's home. The driver opens the panel on a
plain-text reply with text typed in it, Generates and Regenerates from a loopback server through
lumora-native-host, copies and inserts the reply, switches the reading to the whole message and
opens the panel again; inserts a reply into an HTML reply whose window fills the screen; sends to
a refused and to an allowed recipient; switches the recipient check and the extra header off on
the options page and sends again. This script checks what it reports, the requests, the X
clipboard, the compose bodies, the windows' bounds, the outbox and the settings, and compares the
panel's latency with `lumora reply` on the same streams.

With --rounds N the panel runs the two streams N times each, and the latencies are medians:
bench/README.md uses it for the numbers in docs/benchmarks.md. With --screenshots DIR, the
screen is saved there as PNG at three points (the panel beside the filled compose window after
Insert, the panel showing a refused send, the options page); --window-manager CMD runs a window
manager on the X server (none by default, as in CI), where maximizing a window really maximizes
it.

Exit status: 0 passed, 1 failed, 77 skipped (no Thunderbird or Xvfb here).
Usage: run.py --lumora PATH --xpi PATH [--rounds N] [--keep] [--screenshots DIR]
              [--window-manager CMD]
"""

import argparse
import http.server
import json
import mailbox
import os
import re
import select
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import zipfile

HERE = os.path.dirname(os.path.abspath(__file__))
REPLY_SUBJECT = "Re: The spring reading list"
MARS_SUBJECT = "Photos from the Mars exhibition"
REFUSED = "someone@example.com"
REFUSAL = "example.com is not a valid recipient domain"
ALLOWED = "ann@example.org"
# The first run: a reply that trickles in, for the time to the first token.
TRICKLE = ["Dear Ann, ", "thank you ", "for the list. ", "I will start ", "with the first one."]
TRICKLE_GAP = 0.05
# The second run: many small chunks at once, for the cost of each chunk.
BULK_CHUNKS = 5000
# Then two slow replies: one stopped after its first words, one whose panel is closed.
SLOW = ["Stopped here. "] + ["never shown "] * 30
SLOW_GAP = 1.0
PICKED_MODEL = "gpt-3.5-turbo"
# The reply inserted into the HTML reply: paragraphs, a line break, characters HTML must escape.
HTML_REPLY = ["Dear Ann,\n\nFish & chips <b>not</b> bold.", "\nSee you."]
HTML_REPLY_AS_HTML = "<p>Dear Ann,</p><p>Fish &amp; chips &lt;b&gt;not&lt;/b&gt; bold.<br>See you.</p>"
# What the user has typed above the quote before using the panel.
TYPED_PLAIN = "Hi Ann,\n\nMy own words come first.\n"
TYPED_HTML = "<p>Hi Ann, my own words &amp; more come first.</p>"
RULES_OFF_SUBJECT = "Lumora end-to-end with the rules off"
# The options page's switches as they start, and those the driver clicks.
SWITCHES = {"openOnReply": False, "recipientCheck": True, "extraHeader": True, "subjectColour": True}
CLICKED = ["openOnReply", "recipientCheck", "extraHeader"]


def sse(content):
    record = {"id": "c1", "object": "chat.completion.chunk", "created": 1, "model": "gpt-4o",
              "choices": [{"index": 0, "delta": {"content": content}, "finish_reason": None}]}
    return ("data: " + json.dumps(record) + "\n\n").encode()


BULK = [f"w{i} " for i in range(BULK_CHUNKS)]


def client_left(connection, seconds):
    """Waits `seconds` for the client to close the connection mid-stream. A write alone would
    notice only at the second write after the close (the first one draws the reset), which
    with a gap of a second between pieces can come after the checks."""
    readable, _, _ = select.select([connection], [], [], seconds)
    if not readable:
        return False
    try:
        return connection.recv(1, socket.MSG_PEEK) == b""
    except OSError:
        return True


class Harness:
    def __init__(self):
        self.reports = []
        self.requests = []
        self.script = []  # what the next chat requests stream, in turn
        self.gone = []  # the requests (by number) whose client went away mid-stream
        self.lock = threading.Condition()
        self.look = None  # takes a screenshot by name, with --screenshots

    def serve(self):
        harness = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *args):
                pass

            def do_POST(self):
                body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
                if self.path == "/report":
                    report = json.loads(body)
                    # The driver waits for the answer: the screen is as it was when asked.
                    if report["step"] == "look" and harness.look:
                        harness.look(report["name"])
                    with harness.lock:
                        harness.reports.append(report)
                        harness.lock.notify_all()
                    self.send_response(204)
                    self.send_header("Access-Control-Allow-Origin", "*")
                    self.end_headers()
                    return
                with harness.lock:
                    harness.requests.append(json.loads(body))
                    number = len(harness.requests) - 1
                    pieces = harness.script.pop(0) if harness.script else TRICKLE
                gap = {id(TRICKLE): TRICKLE_GAP, id(SLOW): SLOW_GAP}.get(id(pieces), 0)
                self.send_response(200)
                self.send_header("Content-Type", "text/event-stream")
                self.send_header("Transfer-Encoding", "chunked")
                self.end_headers()
                batch = b""
                try:
                    for piece in pieces:
                        batch += sse(piece)
                        if gap or len(batch) > 65536:
                            self.wfile.write(b"%x\r\n%s\r\n" % (len(batch), batch))
                            self.wfile.flush()
                            batch = b""
                            if gap and client_left(self.connection, gap):
                                raise ConnectionResetError("the client closed the connection")
                    batch += b"data: [DONE]\n\n"
                    self.wfile.write(b"%x\r\n%s\r\n0\r\n\r\n" % (len(batch), batch))
                    self.wfile.flush()
                except (BrokenPipeError, ConnectionResetError):
                    with harness.lock:
                        harness.gone.append(number)
                        harness.lock.notify_all()
                    self.close_connection = True

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        return self.server.server_address[1]

    def wait_gone(self, numbers, timeout):
        """The requests of `numbers` whose client went away, once all have or at `timeout`."""
        end = time.time() + timeout
        with self.lock:
            while not set(numbers) <= set(self.gone) and time.time() < end:
                self.lock.wait(end - time.time())
            return list(self.gone)

    def wait_for(self, step, timeout):
        end = time.time() + timeout
        with self.lock:
            while True:
                for r in self.reports:
                    if r["step"] in (step, "failed"):
                        return r
                if time.time() > end:
                    return None
                self.lock.wait(end - time.time())


ANSWERED = f"""From: Ann Example <ann@example.org>
To: Me <me@example.org>
Subject: {REPLY_SUBJECT}
Date: Mon, 23 Nov 2026 09:00:00 +0000
Message-ID: <reading-list@example.org>
MIME-Version: 1.0
Content-Type: multipart/alternative; boundary="b1"

--b1
Content-Type: text/plain; charset=utf-8

Here is my answer.
> Could you send me three books for the spring?
> Something light, please - no thrillers.

--b1
Content-Type: text/html; charset=utf-8
Content-Transfer-Encoding: quoted-printable

<html><body><p>Here is my answer.</p>
<blockquote>Could you send me three books for the spring?</blockquote>
<blockquote>Something light, please =E2=80=94 no thrillers.</blockquote>
</body></html>
--b1--
"""

MARS = f"""From: Museum <news@example.org>
To: Me <me@example.org>
Subject: {MARS_SUBJECT}
Date: Mon, 23 Nov 2026 08:00:00 +0000
Message-ID: <mars@example.org>
MIME-Version: 1.0
Content-Type: text/plain; charset=utf-8

The photos are online.
"""

PREFS = """
user_pref("mail.accountmanager.accounts", "account1,account2");
user_pref("mail.accountmanager.defaultaccount", "account2");
user_pref("mail.accountmanager.localfoldersserver", "server1");
user_pref("mail.account.account1.server", "server1");
user_pref("mail.server.server1.type", "none");
user_pref("mail.server.server1.hostname", "Local Folders");
user_pref("mail.server.server1.userName", "nobody");
user_pref("mail.server.server1.name", "Local Folders");
user_pref("mail.server.server1.directory-rel", "[ProfD]Mail/Local Folders");
user_pref("mail.account.account2.server", "server2");
user_pref("mail.account.account2.identities", "id1");
user_pref("mail.server.server2.type", "pop3");
user_pref("mail.server.server2.hostname", "127.0.0.1");
user_pref("mail.server.server2.port", 9);
user_pref("mail.server.server2.userName", "me");
user_pref("mail.server.server2.name", "me@example.org");
user_pref("mail.server.server2.login_at_startup", false);
user_pref("mail.server.server2.check_new_mail", false);
user_pref("mail.server.server2.deferred_to_account", "account1");
user_pref("mail.server.server2.directory-rel", "[ProfD]Mail/pop");
user_pref("mail.identity.id1.fullName", "Me");
user_pref("mail.identity.id1.useremail", "me@example.org");
user_pref("mail.identity.id1.smtpServer", "smtp1");
user_pref("mail.identity.id1.valid", true);
user_pref("mail.identity.id1.compose_html", false);
user_pref("mail.identity.id1.reply_on_top", 1);
user_pref("mail.smtpservers", "smtp1");
user_pref("mail.smtpserver.smtp1.hostname", "127.0.0.1");
user_pref("mail.smtpserver.smtp1.port", 9);
user_pref("mail.smtp.defaultserver", "smtp1");
user_pref("mail.provider.suppress_dialog_on_startup", true);
user_pref("mail.shell.checkDefaultClient", false);
user_pref("mail.spotlight.firstRunDone", true);
user_pref("mail.winsearch.firstRunDone", true);
user_pref("mail.rights.version", 1);
user_pref("mailnews.start_page.enabled", false);
user_pref("mail.startup.enabledMailCheckOnce", true);
user_pref("mail.biff.play_sound", false);
user_pref("mail.biff.show_alert", false);
user_pref("mail.warn_on_send_accel_key", false);
user_pref("mailnews.sendInBackground", false);
user_pref("offline.autoDetect", false);
user_pref("app.update.auto", false);
user_pref("app.update.disabledForTesting", true);
user_pref("datareporting.policy.dataSubmissionEnabled", false);
user_pref("datareporting.healthreport.uploadEnabled", false);
user_pref("toolkit.telemetry.reportingpolicy.firstRun", false);
user_pref("extensions.autoDisableScopes", 0);
user_pref("extensions.enabledScopes", 15);
user_pref("extensions.update.enabled", false);
user_pref("xpinstall.signatures.required", false);
user_pref("browser.dom.window.dump.enabled", true);
user_pref("devtools.console.stdout.chrome", true);
user_pref("devtools.console.stdout.content", true);
user_pref("mail.tabs.drawInTitlebar", false);
"""


def test_xpi(product_xpi, target, port, rounds):
    """The product's add-on plus the driver: two more background and page scripts, the
    permissions the driver needs, and where to report."""
    with zipfile.ZipFile(product_xpi) as source, zipfile.ZipFile(target, "w") as out:
        for item in source.infolist():
            data = source.read(item)
            if item.filename == "manifest.json":
                manifest = json.loads(data)
                manifest["background"]["scripts"].append("e2e/driver.js")
                manifest["permissions"] += ["compose.send", "accountsFolders", "messagesImport",
                                           "http://127.0.0.1/*"]
                data = json.dumps(manifest, indent=2).encode()
            elif item.filename == "panel/panel.html":
                data = data.replace(b'<script src="panel.js" defer></script>',
                                    b'<script src="panel.js" defer></script>\n'
                                    b'  <script src="../e2e/panel-driver.js" defer></script>')
            elif item.filename == "options/options.html":
                data = data.replace(b'<script src="options.js" defer></script>',
                                    b'<script src="options.js" defer></script>\n'
                                    b'  <script src="../e2e/options-driver.js" defer></script>')
            out.writestr(item.filename, data)
        for name in ("driver.js", "panel-driver.js", "options-driver.js"):
            out.write(os.path.join(HERE, name), "e2e/" + name)
        out.writestr("e2e/answered.eml", ANSWERED.replace("\n", "\r\n"))
        out.writestr("e2e/mars.eml", MARS.replace("\n", "\r\n"))
        out.writestr("e2e/config.json", json.dumps({
            "report": f"http://127.0.0.1:{port}/report",
            "replySubject": REPLY_SUBJECT,
            "marsSubject": MARS_SUBJECT,
            "refusedRecipient": REFUSED,
            "allowedRecipient": ALLOWED,
            "messages": ["answered.eml", "mars.eml"],
            "rounds": rounds,
            "pickedModel": PICKED_MODEL,
            "typedPlain": TYPED_PLAIN,
            "typedHtml": TYPED_HTML,
            "rulesOffSubject": RULES_OFF_SUBJECT,
            "switches": list(SWITCHES),
            "click": CLICKED,
        }))


def free_display():
    for n in range(90, 200):
        if not os.path.exists(f"/tmp/.X{n}-lock"):
            return n
    raise RuntimeError("no free X display")


def reply_timing(lumora, env, harness, pieces, runs=5):
    """`lumora reply` on the same stream: the time to its first byte and to its end."""
    firsts, totals = [], []
    for _ in range(runs):
        with harness.lock:
            harness.script.append(pieces)
        started = time.perf_counter()
        p = subprocess.Popen([lumora, "reply"], env=env, stdout=subprocess.PIPE,
                             stdin=subprocess.DEVNULL)
        p.stdout.read(1)
        firsts.append((time.perf_counter() - started) * 1000)
        p.stdout.read()
        p.wait()
        totals.append((time.perf_counter() - started) * 1000)
    return statistics.median(firsts), statistics.median(totals)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--lumora", required=True)
    parser.add_argument("--xpi", required=True)
    parser.add_argument("--rounds", type=int, default=1, help="panel runs of each stream")
    parser.add_argument("--keep", action="store_true", help="keep the temporary home")
    parser.add_argument("--screenshots", metavar="DIR", help="save screenshots there")
    parser.add_argument("--window-manager", metavar="CMD", help="run this window manager")
    args = parser.parse_args()
    thunderbird = shutil.which("thunderbird")
    if not thunderbird or not shutil.which("Xvfb"):
        print("skipped: Thunderbird or Xvfb is not installed")
        return 77

    home = tempfile.mkdtemp(prefix="lumora-tb-")
    harness = Harness()
    harness.script = [TRICKLE, BULK] * args.rounds + [SLOW, SLOW, HTML_REPLY]  # Generate, Regenerate...
    port = harness.serve()
    env = dict(os.environ, HOME=home, XDG_CONFIG_HOME=f"{home}/.config",
               XDG_DATA_HOME=f"{home}/.local/share", LUMORA_OPENAI_BASE_URL=f"http://127.0.0.1:{port}",
               MOZ_CRASHREPORTER_DISABLE="1", MOZ_DISABLE_AUTO_SAFE_MODE="1")
    env.pop("LUMORA_DEBUG", None)
    for key, value in [("apiKey", "sk-e2e-0000"), ("mailSelectedModel", "gpt-4o")]:
        subprocess.run([args.lumora, "settings", "set", key, value], env=env, check=True)
    installed = subprocess.run([args.lumora, "integrate", "thunderbird"], env=env, check=True,
                               capture_output=True, text=True)
    print(installed.stdout, end="")

    profile = os.path.join(home, "profile")
    local = os.path.join(profile, "Mail", "Local Folders")
    os.makedirs(local)
    os.makedirs(os.path.join(profile, "Mail", "pop"))
    with open(os.path.join(profile, "user.js"), "w") as f:
        f.write(PREFS)
    os.makedirs(os.path.join(profile, "extensions"))
    test_xpi(args.xpi, os.path.join(profile, "extensions", "lumora@zorvel.tech.xpi"), port,
             args.rounds)

    display = free_display()
    # Thunderbird draws through GLX where the X server has it, and under Xvfb then leaves windows
    # it has just resized black: the screenshots are taken on a server without it.
    without_glx = ["-extension", "GLX"] if args.screenshots else []
    xvfb = subprocess.Popen(["Xvfb", f":{display}", "-screen", "0", "1400x900x24", "-nolisten", "tcp"] +
                            without_glx, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    env["DISPLAY"] = f":{display}"
    log_path = os.path.join(home, "thunderbird.log")
    log = open(log_path, "w")
    time.sleep(0.5)
    window_manager = subprocess.Popen(args.window_manager.split(), env=env, stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL) if args.window_manager else None
    if args.screenshots:
        os.makedirs(args.screenshots, exist_ok=True)
        convert = "/usr/bin/convert" if os.path.exists("/usr/bin/convert") else "convert"

        def look(name):
            time.sleep(1)  # windows just moved or resized are drawn anew
            path = os.path.join(args.screenshots, name + ".png")
            subprocess.run(f"xwd -root -silent | {convert} xwd:- {path}", shell=True, env=env, timeout=30)
            print(f"screenshot: {path}")
        harness.look = look
    tb = subprocess.Popen([thunderbird, "--profile", profile, "--no-remote"], env=env,
                          stdout=log, stderr=subprocess.STDOUT)
    failures = []
    results = {}
    try:
        for step, timeout in [("started", 90), ("colour", 60), ("panel-main", 150), ("plainInsert", 60),
                              ("htmlInsert", 60), ("refusal", 60), ("allowed", 60), ("rulesOff", 60),
                              ("openOnReply", 60), ("done", 30)]:
            r = harness.wait_for(step, timeout)
            if r is None or r["step"] == "failed":
                failures.append(f"step {step}: " + (json.dumps(r) if r else "no report in time"))
                break
            results[step] = r
        # The panels' own reports, which come while the background driver waits for them.
        for step in ("panel-reopened",):
            results[step] = next((r for r in harness.reports if r["step"] == step), None)
        # The X clipboard, as another program on the desktop reads it.
        clip = subprocess.run(["xclip", "-o", "-selection", "clipboard"], env=env,
                              capture_output=True, text=True, timeout=10) if shutil.which("xclip") else None
        # The stopped and the closed runs' connections, let go while Thunderbird still runs
        # (its end would close them anyway).
        slow = 2 * args.rounds
        gone_while_running = harness.wait_gone([slow, slow + 1], 10)
    finally:
        tb.terminate()
        try:
            tb.wait(20)
        except subprocess.TimeoutExpired:
            tb.kill()
        if window_manager:
            window_manager.terminate()
        xvfb.terminate()
        log.close()

    expected_first = "".join(TRICKLE)
    expected_second = "".join(BULK)
    checks = []

    def check(name, ok, detail=""):
        checks.append((name, ok))
        print(("ok   " if ok else "FAIL ") + name + (f": {detail}" if detail and not ok else ""))
        if not ok:
            failures.append(name)

    if "started" in results:
        print(f"Thunderbird {results['started'].get('version')}")
    if "colour" in results:
        c = results["colour"]
        check("the Mars message carries the red tag", "lumoramars" in c["marsTags"], c)
        check("the other message does not", "lumoramars" not in c["otherTags"], c)
    if "panel-main" in results:
        p = results["panel-main"]
        check("the panel ran without failure", "failure" not in p, p.get("failure"))
        runs = p.get("runs", [])
        check("Generate streamed the reply", len(runs) > 0 and runs[0]["text"] == expected_first,
              runs[0]["text"][:200] if runs else "")
        check("Regenerate replaced it", len(runs) > 1 and runs[1]["text"] == expected_second,
              (runs[1]["text"][:100] + "…") if len(runs) > 1 else "")
        check("every run streamed its reply in full",
              all(r["text"] == (expected_first if i % 2 == 0 else expected_second)
                  for i, r in enumerate(runs)) and len(runs) == 2 * args.rounds)
        check("the finished reply offers Copy, Insert and Regenerate",
              p.get("buttons") == ["Copy", "Insert", "Regenerate"], p.get("buttons"))
        check("Insert is not offered while the reply is being written", p.get("insertWhileWriting") is False)
        check("the input page shows the wand and not the back control",
              p.get("headerOnInput") == {"back": False, "wand": True}, p.get("headerOnInput"))
        check("the result page shows the back control and not the wand",
              p.get("headerOnResult") == {"back": True, "wand": False}, p.get("headerOnResult"))
        check("the instruction has the focus when the panel opens", p.get("instructionFocused") is True)
        check("Copy bounced", p.get("copyBounces") == 1, {k: v for k, v in p.items() if k != "runs"})
        if clip is not None:
            check("Copy put the reply on the X clipboard", clip.stdout == runs[-1]["text"],
                  clip.stdout[:100] + " " + clip.stderr)
        check("no error line", p.get("error") is None, p.get("error"))
        check("Back brought the input page with no reply",
              p.get("afterBack") == {"page": "input", "text": ""}, p.get("afterBack"))
        check("the model picker's choice went into the next request",
              len(harness.requests) > slow and harness.requests[slow]["model"] == PICKED_MODEL)
        check("Stop kept the words so far and ended the run",
              p.get("stopped") == {"text": SLOW[0], "title": "Lumora", "button": "startGeneration"},
              p.get("stopped"))
        # Closing the panel ends the port; the host stops the run and libcurl lets the server go,
        # all while Thunderbird still runs.
        check("Stop let the server go", slow in gone_while_running, gone_while_running)
        check("closing the panel mid-reply stopped the run and let the server go",
              p.get("closedWhileWriting") is True and slow + 1 in gone_while_running,
              gone_while_running)
        if harness.requests:
            messages = harness.requests[0]["messages"]
            check("the request held the instruction and the two quoted passages",
                  messages == [{"role": "system", "content": "You're my assistant, please reply this email"},
                               {"role": "user", "content": "Could you send me three books for the spring?\n"
                                                           "Something light, please — no thrillers."}],
                  json.dumps(messages))
    # What the model reads: the quoted passages until the panel's control switches to the whole
    # message, which the next request carries and the next panel starts with. The count in the
    # line is that of the request's user message: the line says what is really sent.
    def user_message(number):
        if len(harness.requests) <= number:
            return ""
        return next((m["content"] for m in harness.requests[number]["messages"] if m["role"] == "user"), "")

    if "panel-main" in results:
        p = results["panel-main"]
        quoted, whole = user_message(0), user_message(slow)
        check("the input page says the model reads the quoted passages, beside the control to switch",
              p.get("readingAtStart") == {"line": f"The model reads: 2 quoted passages ({len(quoted)} characters)",
                                          "control": "Read the whole message", "shown": True},
              p.get("readingAtStart"))
        check("the reading is not on the result page", p.get("readingOnResult") is False, p.get("readingOnResult"))
        switched = {"line": "The model reads: the message from Ann Example and 1 earlier message "
                            f"({len(whole)} characters)",
                    "control": "Read only the quoted passages", "shown": True}
        check("the control switched the line to the whole message", p.get("readingSwitched") == switched,
              p.get("readingSwitched"))
        check("the next Generate sent the whole message: sender, new text and the quoted thread",
              whole.startswith("From: Ann Example <ann@example.org>\n") and "\nHere is my answer.\n" in whole
              and "> Could you send me three books for the spring?" in whole, json.dumps(whole))
        r = results.get("panel-reopened") or {}
        check("a panel opened again starts with the whole message", r.get("reading") == switched, r)
    settings = os.path.join(env["XDG_CONFIG_HOME"], "lumora", "tech.zorvel.lumora.json")
    try:
        with open(settings) as f:
            stored = json.load(f).get("mailReading")
    except (OSError, ValueError) as e:
        stored = repr(e)
    check("the reading was kept in the setting mailReading", stored == "message", stored)
    if "refusal" in results:
        r = results["refusal"]
        check("sending to the reserved domain was refused", "refused" in r["outcome"], r)
        check("with the refusal text", r.get("refusal") == REFUSAL, r)
        check("the panel of that compose window opened, showing the refusal",
              (r.get("panel") or {}).get("refusal") == REFUSAL, r.get("panel"))
        check("the compose action marks the recipient", r.get("badge") == "!" and
              f"{REFUSED}: example.com is not a valid domain" in r.get("title", ""), r)
    # The outbox, one message per subject. Thunderbird writes a custom header's name in its own
    # letter case (X-Customheader); header names are compared without case, as email does.
    outbox_path = os.path.join(local, "Unsent Messages")
    outbox = {m["Subject"]: m for m in mailbox.mbox(outbox_path)} if os.path.exists(outbox_path) else {}
    if "allowed" in results:
        sent = outbox.get(f"Lumora end-to-end to {ALLOWED}")
        header = sent.get_all("X-CustomHeader") if sent else None
        check("an allowed mail went to the outbox with the extra header",
              sent is not None and sent["To"] == ALLOWED and header == ["This ia a custom header."],
              sorted(outbox))
        if sent:
            print("     (as Thunderbird wrote it: " +
                  next(line for line in sent.as_string().splitlines() if line.lower().startswith("x-customheader")) + ")")
        check("the refused mail did not", f"Lumora end-to-end to {REFUSED}" not in outbox, sorted(outbox))
    if "rulesOff" in results:
        r = results["rulesOff"]
        options = r.get("options") or {}
        check("the options page starts with every rule on and the panel waiting to be asked",
              options.get("atStart") == SWITCHES, options)
        check("its switches keep what was clicked in storage",
              {name: (options.get("stored") or {}).get(name, on) for name, on in SWITCHES.items()} ==
              {name: on != (name in CLICKED) for name, on in SWITCHES.items()}, options)
        unruled = outbox.get(RULES_OFF_SUBJECT)
        check("with the recipient check off, a mail to the reserved domain was not refused",
              "sent" in r.get("outcome", {}) and unruled is not None and unruled["To"] == REFUSED, r)
        check("with the extra header off, it went without X-CustomHeader",
              unruled is not None and unruled.get_all("X-CustomHeader") is None,
              unruled.as_string()[:600] if unruled else "")

    if "openOnReply" in results:
        r = results["openOnReply"]
        check("with its switch on, a reply opened its panel by itself", r.get("opened") is True, r)

    # Insert into the plain-text reply: the finished reply, after the typed text and above the
    # attribution, with both and the quote as they were.
    if "plainInsert" in results and "panel-main" in results:
        p = results["panel-main"]
        before, after = results["plainInsert"]["before"], results["plainInsert"]["after"]
        check("Insert was confirmed", p.get("inserted") == {"insertions": 1, "error": None}, p.get("inserted"))
        reply = p["runs"][-1]["text"].strip() if p.get("runs") else "?"
        attribution = re.search(r"^On .* wrote:$", before, re.M)
        quote = before[attribution.start():] if attribution else "?"
        at = after.find(reply)
        check("the plain-text reply holds the reply once", at >= 0 and after.count(reply) == 1,
              after[:300])
        check("the typed text comes first, unchanged, with the reply right after it",
              before.startswith(TYPED_PLAIN) and after[:at].startswith(TYPED_PLAIN.rstrip("\n"))
              and after[:at].strip() == TYPED_PLAIN.strip(), repr(after[:at][:200]))
        check("the reply comes before the attribution, a blank line apart, and the quote is unchanged",
              attribution is not None and after.endswith(quote) and
              after[at + len(reply):-len(quote)].strip() == "" and after[at + len(reply):-len(quote)].count("\n") >= 2,
              repr(after[at + len(reply):][:300]))
    if "htmlInsert" in results:
        h = results["htmlInsert"]
        before, after = h["before"], h["after"]
        check("Insert into the HTML reply was confirmed",
              h["panel"].get("insertions") == 1 and h["panel"].get("error") is None, h["panel"])
        typed_end = before.find(TYPED_HTML) + len(TYPED_HTML)
        check("the reply went in as escaped paragraphs right after the typed paragraph, the rest as it was",
              TYPED_HTML in before and '<div class="moz-cite-prefix">' in before[typed_end:] and
              after == before[:typed_end] + HTML_REPLY_AS_HTML + before[typed_end:],
              after)
        w = h["windows"]
        area, compose, panel = w["area"], w["compose"], w["panel"]
        # Without a window manager (as in CI) the bounds are exactly as set; a window manager's
        # frames make them differ by a few pixels.
        slack = 10 if w["maximized"] else 0

        def inside(r):
            return (r["left"] >= area["left"] - slack and r["top"] >= area["top"] - slack and
                    r["left"] + r["width"] <= area["left"] + area["width"] + slack and
                    r["top"] + r["height"] <= area["top"] + area["height"] + slack)
        apart = (panel["left"] + slack >= compose["left"] + compose["width"] or
                 compose["left"] + slack >= panel["left"] + panel["width"])
        check("the panel sits beside the compose window that filled the screen, both in the work area",
              apart and inside(panel) and inside(compose) and compose["state"] == "normal", w)
        # Only a window manager raises and focuses windows.
        if w["maximized"]:
            check("after Insert the panel is in front", panel["focused"] is True, w)
        print(f"     (windows after Insert: {json.dumps(w)})")

    if "panel-main" in results and len(results["panel-main"].get("runs", [])) == 2 * args.rounds:
        runs = results["panel-main"]["runs"]
        trickle, bulk = runs[0::2], runs[1::2]
        times = max(5, args.rounds)
        started = []
        for _ in range(times):
            t = time.perf_counter()
            subprocess.run([args.lumora, "--version"], env=env, stdout=subprocess.DEVNULL, check=True)
            started.append((time.perf_counter() - t) * 1000)
        first_reply, _ = reply_timing(args.lumora, env, harness, TRICKLE, times)
        _, bulk_reply = reply_timing(args.lumora, env, harness, BULK, times)
        panel_first = statistics.median(r["firstTokenMs"] for r in trickle)
        panel_bulk = statistics.median(r["totalMs"] for r in bulk)
        messages = statistics.median(r["outputMessages"] for r in bulk)
        print(f"\nLatency: medians of {args.rounds} panel runs and {times} runs of lumora reply")
        print(f"  first token: panel {panel_first:.1f} ms after Generate; lumora reply "
              f"{first_reply:.1f} ms after its start (lumora --version: {statistics.median(started):.1f} ms)")
        print(f"  {BULK_CHUNKS} chunks at once: panel {panel_bulk:.1f} ms, "
              f"{panel_bulk / BULK_CHUNKS * 1000:.1f} µs a chunk in {messages:.0f} output messages; "
              f"lumora reply {bulk_reply:.1f} ms, {bulk_reply / BULK_CHUNKS * 1000:.1f} µs a chunk; "
              f"panel/reply {panel_bulk / bulk_reply:.2f}")

    if failures:
        print("\nFAILED:", *failures, sep="\n  ")
        print("\nThe driver's reports:", *(json.dumps(r)[:3000] for r in harness.reports), sep="\n  ")
        print(f"\nThunderbird's output ({log_path}):")
        print(open(log_path, errors="replace").read()[-6000:])
    if not args.keep and not failures:
        shutil.rmtree(home, ignore_errors=True)
    else:
        print(f"\nThe test's home is kept: {home}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
