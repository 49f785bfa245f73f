#!/usr/bin/python3
"""Browser tests of the web console: the real nox-gateway with the simulated
backend, driven in a headless Chromium through chromedriver (Debian's
chromium, chromium-driver and python3-selenium).

    console_browser_test.py --gateway build/bin/nox-gateway --out build/console-screenshots

The cases sign in through the console's own form, check what the pages
show against what the HTTP API answers, and save a screenshot of each page
in --out. A JavaScript error or a Content-Security-Policy violation in the
browser's log fails the case. The gateway and the browser listen and
connect on 127.0.0.1 only.
"""

import argparse
import base64
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request
from datetime import datetime
from zoneinfo import ZoneInfo

from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException, TimeoutException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select, WebDriverWait

ARGS = None
PASSWORD = "Console-Test-Pw-7"
WAIT = 20  # seconds any one expected state may take
DETAIL_SEPARATOR = "\\n\n"
ERR_VERIFY_CODE = 0x03000014
ERR_CERT_NOT_SAFE = 0x60E01D0A
ERR_CRL_UNKNOWN_ISSUER = 0x60E01D12
MAX_UPLOAD = 1048576
LANGUAGE_KEY = "nox.console.language"  # the one thing the console keeps in localStorage
# The time zone the browser is put in where times are compared, and how the
# console names it.
ZONE = "Asia/Shanghai"
ZONE_TEXT = "UTC+08:00"


class Gateway:
    """One nox-gateway on a free loopback port with a fresh data folder."""

    def __init__(self, *extra):
        self.folder = tempfile.mkdtemp(prefix="nox-console-")
        self.access_log = os.path.join(self.folder, "access.log")
        self.extra = extra
        self.start("127.0.0.1:0")

    def start(self, listen):
        args = [ARGS.gateway, "--listen", listen,
                "--data", os.path.join(self.folder, "data"),
                "--init-password", PASSWORD, "--expose-verify-code",
                "--log", os.path.join(self.folder, "trace.log"),
                "--access-log", self.access_log, *self.extra]
        self.process = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True)
        self.port = 0
        deadline = time.time() + 60
        output = []
        while time.time() < deadline:
            line = self.process.stdout.readline()
            if not line:
                break
            output.append(line)
            match = re.match(r"listening on 127\.0\.0\.1:(\d+)", line)
            if match:
                self.port = int(match.group(1))
                break
        if not self.port:
            self.stop()
            raise RuntimeError("the gateway did not start: " + "".join(output))
        self.base = "http://127.0.0.1:%d" % self.port

    def restart(self):
        """Stops the gateway and starts it again on the same port with the
        same data folder; returns the first one's exit status."""
        port = self.port
        status = self.end_process()
        self.start("127.0.0.1:%d" % port)
        return status

    def end_process(self):
        status = None
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                status = self.process.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        else:
            status = self.process.returncode
        self.process.stdout.close()
        return status

    def stop(self):
        """SIGTERM; returns the exit status (the gateway exits with 0)."""
        status = self.end_process()
        shutil.rmtree(self.folder, ignore_errors=True)
        return status

    def request(self, method, path, token=None, body=None):
        """The API's answer (status, JSON) to a request made outside the
        browser, with the token in X-Auth-Token."""
        headers = {"Accept": "application/json"}
        data = None
        if token:
            headers["X-Auth-Token"] = token
        if body is not None:
            headers["Content-Type"] = "application/json"
            data = json.dumps(body).encode()
        req = urllib.request.Request(self.base + path, data=data, method=method, headers=headers)
        try:
            with urllib.request.urlopen(req, timeout=30) as res:
                return res.status, json.loads(res.read().decode())
        except urllib.error.HTTPError as e:
            return e.code, json.loads(e.read().decode())

    def api_token(self):
        status, answer = self.request("POST", "/sessions", body={
            "username": "apiuser", "password": PASSWORD, "scope": "4", "language": "en"})
        assert status == 200, answer
        return answer["data"]["token"]

    def access_lines(self, needle):
        with open(self.access_log, encoding="utf-8") as f:
            return [line for line in f if needle in line]


def make_browser(width=1280, height=900):
    profile = tempfile.mkdtemp(prefix="nox-console-chromium-")
    options = webdriver.ChromeOptions()
    options.binary_location = ARGS.chromium
    for arg in ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                "--disable-background-networking", "--disable-component-update",
                "--disable-sync", "--disable-dev-shm-usage", "--lang=en-US",
                "--user-data-dir=" + profile, "--window-size=%d,%d" % (width, height)]:
        options.add_argument(arg)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    driver = webdriver.Chrome(service=Service(ARGS.chromedriver), options=options)
    driver.set_page_load_timeout(60)
    driver.profile_folder = profile
    return driver


def close_browser(driver):
    driver.quit()
    shutil.rmtree(driver.profile_folder, ignore_errors=True)


class ConsoleTestBase(unittest.TestCase):
    gateway = None

    @classmethod
    def setUpClass(cls):
        cls.gateway = Gateway(*cls.gateway_options())

    @classmethod
    def gateway_options(cls):
        return []

    @classmethod
    def tearDownClass(cls):
        status = cls.gateway.stop()
        if status != 0:
            raise AssertionError("the gateway ended with status %r" % status)

    def setUp(self):
        self.driver = make_browser()
        # The live pages replace rows as changes arrive: an element that went
        # stale during a wait is looked up again on the next try.
        self.wait = WebDriverWait(self.driver, WAIT,
                                  ignored_exceptions=(StaleElementReferenceException,))

    def tearDown(self):
        try:
            self.assert_no_page_errors()
        finally:
            close_browser(self.driver)

    # --- helpers -------------------------------------------------------------

    def assert_no_page_errors(self):
        """Fails on any JavaScript error or policy violation the page logged.
        Failed requests ("Failed to load resource: ... 401") are the API's
        answers the pages handle, not errors of the page."""
        errors = [entry for entry in self.driver.get_log("browser")
                  if entry["level"] == "SEVERE" and entry.get("source") != "network"]
        self.assertEqual(errors, [], "errors in the browser log")

    def shot(self, name, at=None):
        """Saves the window as <out>/<name>.png, scrolled to the top or to
        the element `at`."""
        os.makedirs(ARGS.out, exist_ok=True)
        if at:
            self.driver.execute_script("arguments[0].scrollIntoView({block: 'start'})",
                                       self.el(at))
        else:
            self.driver.execute_script("window.scrollTo(0, 0)")
        time.sleep(0.3)  # let the last paint settle
        self.driver.save_screenshot(os.path.join(ARGS.out, name + ".png"))

    def el(self, element_id):
        return self.driver.find_element(By.ID, element_id)

    def visible(self, element_id):
        return self.wait.until(lambda d: d.find_element(By.ID, element_id)
                               if d.find_element(By.ID, element_id).is_displayed() else None)

    def wait_text(self, element_id, pattern):
        """Waits until the text of `element_id` matches `pattern`; returns it."""
        def check(driver):
            text = driver.find_element(By.ID, element_id).text
            return text if re.search(pattern, text) else None
        try:
            return self.wait.until(check)
        except TimeoutException:
            self.fail("%s never matched %r; it says %r" % (element_id, pattern,
                                                          self.el(element_id).text))

    def open_console(self, fragment=""):
        self.driver.get(self.gateway.base + "/console/" + fragment)
        self.visible("main")

    def challenge_answers(self):
        """The verification codes of the challenges the page fetched, newest
        last, read from the browser's own network record (the gateway puts the
        code in the challenge only with --expose-verify-code)."""
        codes = []
        for entry in self.driver.get_log("performance"):
            message = json.loads(entry["message"])["message"]
            if message["method"] != "Network.responseReceived":
                continue
            response = message["params"]["response"]
            if not response["url"].endswith("/login") or response["status"] != 200:
                continue
            body = self.driver.execute_cdp_cmd(
                "Network.getResponseBody", {"requestId": message["params"]["requestId"]})
            text = body["body"]
            if body.get("base64Encoded"):
                text = base64.b64decode(text).decode()
            data = json.loads(text).get("data") or {}
            if "code" in data:
                codes.append(data)
        return codes

    def sign_in(self, user="apiuser", scope="4", password=PASSWORD, expect_success=True):
        self.visible("page-signin")
        Select(self.el("signin-scope")).select_by_value(scope)
        self.el("signin-user").clear()
        self.el("signin-user").send_keys(user)
        self.el("signin-password").clear()
        self.el("signin-password").send_keys(password)
        if scope != "4":
            self.wait.until(lambda d: d.find_element(By.ID, "signin-code-image")
                            .get_attribute("src").startswith("data:image/png;base64,"))
            code = self.latest_challenge()
            self.el("signin-code").clear()
            self.el("signin-code").send_keys(code)
        self.el("signin-submit").click()
        if expect_success:
            self.visible("page-tasks")

    def latest_challenge(self):
        """The code of the challenge whose picture the page shows."""
        shown = self.el("signin-code-image").get_attribute("src")
        deadline = time.time() + WAIT
        seen = []
        while time.time() < deadline:
            seen += self.challenge_answers()
            for challenge in reversed(seen):
                if challenge["image"] == shown:
                    return challenge["code"]
            time.sleep(0.2)
        self.fail("no exposed code for the challenge the page shows")

    def cookies_are_http_only(self):
        cookies = {c["name"]: c for c in self.driver.get_cookies()}
        self.assertIn("NOX_SESSION", cookies)
        self.assertTrue(cookies["NOX_SESSION"]["httpOnly"])
        self.assertEqual(cookies["NOX_SESSION"].get("sameSite"), "Strict")

    def assert_no_secret_in_page_storage(self):
        storage = self.driver.execute_script(
            "return [Object.keys(window.localStorage), window.sessionStorage.length,"
            " document.cookie, window.location.href];")
        self.assertLessEqual(set(storage[0]), {LANGUAGE_KEY}, "localStorage holds more")
        self.assertEqual(storage[1], 0, "sessionStorage holds something")
        self.assertNotIn("NOX_SESSION", storage[2], "the page can read the session cookie")
        self.assertNotIn(PASSWORD, storage[3])
        self.assertRegex(storage[3], r"/console/#/\w+$")


class ConsoleBrowserTest(ConsoleTestBase):
    def test_01_served_with_a_strict_policy(self):
        """The console's files come from the gateway with their policy; the
        API's answers keep theirs."""
        with urllib.request.urlopen(self.gateway.base + "/console/", timeout=30) as res:
            policy = res.headers["Content-Security-Policy"]
            self.assertIn("default-src 'self'", policy)
            self.assertIn("frame-ancestors 'none'", policy)
            self.assertNotIn("unsafe-inline", policy)
            self.assertTrue(res.headers["Content-Type"].startswith("text/html"))
            page = res.read().decode()
        self.assertNotRegex(page, r"<script(?![^>]*\bsrc=)", "inline script")
        self.assertNotRegex(page, r"\sstyle=|<style", "inline style")
        self.assertNotRegex(page, r"(src|href)=\"(https?:)?//", "a file from elsewhere")
        self.open_console()
        self.visible("page-signin")
        self.assertEqual(self.driver.title, "NOX console")
        self.shot("signin")

    def test_02_sign_in_on_sessions_with_the_keyboard(self):
        self.open_console()
        self.visible("page-signin")
        Select(self.el("signin-scope")).select_by_value("4")
        self.assertFalse(self.el("signin-challenge").is_displayed(), "no code for scope 4")
        self.el("signin-user").click()
        actions = self.driver.switch_to.active_element
        actions.send_keys("apiuser", Keys.TAB)
        self.driver.switch_to.active_element.send_keys(PASSWORD, Keys.ENTER)
        self.visible("page-tasks")
        self.assertEqual(self.el("who").text, "Signed in as apiuser")
        self.assertEqual(self.driver.switch_to.active_element.tag_name, "h1",
                         "the new page's heading takes the focus")
        self.cookies_are_http_only()
        self.assert_no_secret_in_page_storage()
        self.shot("tasks")

    def test_03_sign_in_on_login_with_the_verification_code(self):
        self.open_console()
        self.visible("page-signin")
        Select(self.el("signin-scope")).select_by_value("0")
        image = self.el("signin-code-image")
        self.wait.until(lambda d: image.get_attribute("src").startswith("data:image/png;base64,"))
        self.wait.until(lambda d: d.execute_script(
            "return arguments[0].complete && arguments[0].naturalWidth > 0", image))
        first = image.get_attribute("src")
        self.el("signin-new-code").click()
        self.wait.until(lambda d: image.get_attribute("src") not in ("", None, first))
        self.shot("signin-code")
        # A wrong code is refused with its code and text; the page fetches a new challenge.
        self.el("signin-user").send_keys("admin")
        self.el("signin-password").send_keys(PASSWORD)
        shown = image.get_attribute("src")
        self.el("signin-code").send_keys("WRONG1")
        self.el("signin-submit").click()
        text = self.wait_text("signin-error", r"0x03000014")
        self.assertIn("verification code", text)
        self.wait.until(lambda d: image.get_attribute("src") not in ("", None, shown))
        # The right code signs in.
        self.el("signin-code").send_keys(self.latest_challenge())
        self.el("signin-submit").click()
        self.visible("page-tasks")
        self.assertEqual(self.el("who").text, "Signed in as admin")
        self.cookies_are_http_only()
        self.assert_no_secret_in_page_storage()

    def test_04_tasks_listed_filtered_and_opened_in_both_languages(self):
        token = self.gateway.api_token()
        self.open_console()
        self.sign_in()
        # No refresh while rows are compared (test_12 covers it).
        self.el("tasks-auto").click()
        _, count = self.gateway.request("GET", "/kestrel_task/count", token)
        total = count["data"]["count"]
        range_text = self.wait_text("tasks-pager", r"1–10 of %d" % total)
        self.assertIn("of %d" % total, range_text)
        _, page = self.gateway.request("GET", "/kestrel_task?start=0&limit=10&sort=-startTime",
                                       token)
        rows = self.driver.find_elements(By.CSS_SELECTOR, "#tasks-table tbody tr")
        self.assertEqual([r.get_attribute("data-task-id") for r in rows],
                         [t["taskId"] for t in page["data"]])
        # The status filter: failed tasks only, counted by the count route.
        Select(self.el("tasks-status")).select_by_value("5")
        _, failed_count = self.gateway.request("GET", "/kestrel_task/count?status=5", token)
        failed_total = failed_count["data"]["count"]
        self.assertGreater(failed_total, 0)
        self.wait_text("tasks-pager", r"of %d\b" % failed_total)
        statuses = {e.text for e in self.driver.find_elements(
            By.CSS_SELECTOR, "#tasks-table tbody .badge")}
        self.assertEqual(statuses, {"Failed"})
        failed = self.driver.find_element(By.CSS_SELECTOR, "#tasks-table tbody button.open-task")
        task_id = failed.get_attribute("data-task-id")
        # Keyboard: the name is a button that Enter opens.
        failed.send_keys(Keys.ENTER)
        self.visible("task-detail")
        for language in ("en", "zh"):
            if language == "zh":
                self.driver.find_element(By.CSS_SELECTOR, "#task-detail [data-lang=zh]").click()
            self.wait.until(lambda d: d.find_element(By.ID, "task-detail")
                            .get_attribute("data-language") == language)
            _, answer = self.gateway.request(
                "GET", "/kestrel_task/%s?LANGUAGE=%s" % (task_id, language), token)
            task = answer["data"]
            expected = [line.strip() for line in task["detail"].split(DETAIL_SEPARATOR)
                        if line.strip()]
            self.assertTrue(expected, "the task has progress entries")
            self.wait.until(lambda d: [li.text for li in d.find_elements(
                By.CSS_SELECTOR, "#task-detail-lines li")] == expected)
            self.assertEqual(self.el("task-error-text").text.strip(),
                             task["errorInfo"]["description"].strip())
            self.assertEqual(self.el("task-error-code").text, task["errorInfo"]["code"])
            self.shot("task-detail-" + language, at="task-detail")
        # English and Chinese details differ: the switch changed the request.
        self.assertRegex(self.el("task-detail-lines").text, r"[\u4e00-\u9fff]")

    def test_05_interface_in_chinese_and_on_a_phone(self):
        self.driver.set_window_size(390, 844)
        self.open_console()
        self.el("lang-switch").click()
        self.wait_text("signin-submit", "登录")
        self.assertEqual(self.driver.execute_script("return document.documentElement.lang"),
                         "zh-CN")
        self.sign_in()
        self.wait_text("tasks-pager", "共")
        self.assertEqual(self.driver.find_element(By.CSS_SELECTOR, "#page-tasks h1").text, "任务")
        width = self.driver.execute_script(
            "return [document.documentElement.scrollWidth, window.innerWidth]")
        self.assertLessEqual(width[0], width[1], "the page fits a phone's width")
        self.shot("tasks-phone-zh")

    def test_06_alarms_paged_with_the_total_from_the_count_route(self):
        token = self.gateway.api_token()
        self.open_console()
        self.sign_in()
        self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=alarms]").click()
        self.visible("page-alarms")
        _, count = self.gateway.request("GET", "/alarm/historyalarm/count", token)
        total = count["COUNT"]
        self.assertGreater(total, 20)
        self.wait_text("alarms-total", r"^%d$" % total)
        Select(self.el("alarms-limit")).select_by_value("10")
        pages = []
        for start in (0, 10, 20):
            self.wait_text("alarms-pager", r"%d–%d of %d" % (start + 1, start + 10, total))
            _, answer = self.gateway.request(
                "GET", "/alarm/historyalarm?start=%d&limit=10" % start, token)
            ids = [str(a["id"]) for a in answer["data"]["alarms"]]
            shown = [r.get_attribute("data-alarm-id") for r in self.driver.find_elements(
                By.CSS_SELECTOR, "#alarms-table tbody tr")]
            self.assertEqual(shown, ids)
            pages.append(ids)
            if start == 10:
                self.shot("alarms")
            if start < 20:
                self.driver.find_element(By.CSS_SELECTOR, "#alarms-pager [data-step='1']").click()
        self.assertEqual(len({i for p in pages for i in p}), 30, "three different pages")
        self.driver.find_element(By.CSS_SELECTOR, "#alarms-pager [data-step='-1']").click()
        self.wait_text("alarms-pager", r"11–20 of %d" % total)
        # A severity filter changes the total to the count route's.
        Select(self.el("alarms-severity")).select_by_value("1")
        _, critical = self.gateway.request("GET", "/alarm/historyalarm/count?severity=1", token)
        self.wait_text("alarms-total", r"^%d$" % critical["COUNT"])

    def test_07_certificate_uploads(self):
        folder = tempfile.mkdtemp(prefix="nox-console-pki-")
        try:
            good = self.make_ca(folder, "good", "sha256")
            weak = self.make_ca(folder, "sha1", "sha1")
            big = os.path.join(folder, "big.pem")
            with open(big, "wb") as f:
                f.write(b"A" * (MAX_UPLOAD + 1))
            self.open_console()
            self.sign_in()
            self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=certificates]").click()
            self.visible("page-certificates")
            verdict = self.el("cert-verdict")

            self.el("cert-file").send_keys(good)
            self.driver.find_element(By.CSS_SELECTOR, "#cert-form button[type=submit]").click()
            self.wait.until(lambda d: verdict.get_attribute("data-outcome") == "imported")
            # The bar goes back to empty once the verdict is in.
            self.assertEqual(self.el("cert-progress").get_attribute("value"), "0")
            self.assertFalse(self.el("cert-progress").is_displayed())
            self.assertEqual(verdict.text, "Imported.")
            self.assertEqual(self.el("cert-file-name").text, "good.pem")

            self.el("cert-file").send_keys(weak)
            self.driver.find_element(By.CSS_SELECTOR, "#cert-form button[type=submit]").click()
            self.wait.until(lambda d: verdict.get_attribute("data-outcome") == "refused")
            self.assertEqual(verdict.get_attribute("data-code"), str(ERR_CERT_NOT_SAFE))
            self.assertIn("The certificate is not safe.", verdict.text)
            self.assertIn("1625300234 (0x60E01D0A)", verdict.text)
            self.assertTrue(verdict.text.startswith("The file was not imported."), verdict.text)
            self.assertNotIn("backend", verdict.text)
            self.assertEqual(self.el("cert-progress").get_attribute("value"), "0")
            self.shot("certificates")

            posts = len(self.gateway.access_lines("POST /kestrel_cert/import_cert"))
            self.assertEqual(posts, 2)
            self.el("cert-file").send_keys(big)
            self.driver.find_element(By.CSS_SELECTOR, "#cert-form button[type=submit]").click()
            self.wait.until(lambda d: verdict.get_attribute("data-outcome") == "too-large")
            self.assertIn("1048577 bytes", verdict.text)
            time.sleep(0.5)
            self.assertEqual(len(self.gateway.access_lines("POST /kestrel_cert/import_cert")),
                             posts, "the oversized file was not sent")
            self.shot("certificates-too-large")

            # A CRL of the imported CA is imported; one of an unknown CA is not.
            crl_verdict = self.el("crl-verdict")
            self.el("crl-file").send_keys(self.make_crl(folder, "good"))
            self.driver.find_element(By.CSS_SELECTOR, "#crl-form button[type=submit]").click()
            self.wait.until(lambda d: crl_verdict.get_attribute("data-outcome") == "imported")
            self.make_ca(folder, "stranger", "sha256")
            self.el("crl-file").send_keys(self.make_crl(folder, "stranger"))
            self.driver.find_element(By.CSS_SELECTOR, "#crl-form button[type=submit]").click()
            self.wait.until(lambda d: crl_verdict.get_attribute("data-outcome") == "refused")
            self.assertEqual(crl_verdict.get_attribute("data-code"), str(ERR_CRL_UNKNOWN_ISSUER))
            self.assertIn("The CRL's issuer is not an imported CA.", crl_verdict.text)
            self.shot("certificates-crl", at="crl-form")

            # The verdicts follow the interface language.
            self.el("lang-switch").click()
            self.wait_text("cert-verdict", "1048576")
            self.assertIn("字节", verdict.text)
            self.assertIn("吊销列表的签发者不是已导入的 CA", crl_verdict.text)
        finally:
            shutil.rmtree(folder, ignore_errors=True)

    @staticmethod
    def make_ca(folder, name, digest):
        path = os.path.join(folder, name + ".pem")
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes",
             "-keyout", os.path.join(folder, name + ".key"), "-out", path, "-days", "30",
             "-subj", "/CN=Console test CA " + name, "-" + digest,
             "-addext", "basicConstraints=critical,CA:TRUE",
             "-addext", "keyUsage=critical,keyCertSign,cRLSign"],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return path

    @staticmethod
    def make_crl(folder, name):
        """An empty CRL issued by the CA `name` made by make_ca."""
        base = os.path.join(folder, name)
        with open(base + ".index", "w", encoding="ascii"):
            pass
        with open(base + ".crlnumber", "w", encoding="ascii") as f:
            f.write("01\n")
        with open(base + ".cnf", "w", encoding="ascii") as f:
            f.write("[ca]\ndefault_ca = test\n[test]\ndatabase = %s.index\n"
                    "crlnumber = %s.crlnumber\ndefault_md = sha256\ndefault_crl_days = 7\n"
                    % (base, base))
        subprocess.run(["openssl", "ca", "-gencrl", "-keyfile", base + ".key",
                        "-cert", base + ".pem", "-out", base + ".crl", "-config", base + ".cnf"],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return base + ".crl"

    def test_08_storage_configuration(self):
        token = self.gateway.api_token()
        _, answer = self.gateway.request(
            "GET", "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf", token)
        self.open_console()
        self.sign_in()
        self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=storage]").click()
        self.wait_text("storage-name", "^%s$" % re.escape(answer["data"]["name"]))
        self.assertEqual(self.el("storage-path").text, answer["data"]["storagePath"])
        self.assertEqual(self.el("storage-type").text, "NAS (NFS)")
        self.shot("storage")

    def test_09_sign_out(self):
        self.open_console()
        self.sign_in()
        self.el("sign-out").click()
        self.visible("page-signin")
        self.wait_text("notice", "You have signed out.")
        self.assertNotIn("NOX_SESSION", [c["name"] for c in self.driver.get_cookies()])
        status = self.driver.execute_script(
            "return fetch('/sessions', {credentials: 'same-origin'}).then(r => r.status)")
        self.assertEqual(status, 401)
        self.assertTrue(self.driver.current_url.endswith("#/signin"))
        self.shot("signed-out")

    def test_10_cookie_requests_need_the_console_header(self):
        """Outside the console's own requests: the cookie alone changes nothing."""
        self.open_console()
        self.sign_in()
        status = self.driver.execute_script(
            "return fetch('/sessions', {method: 'DELETE', credentials: 'same-origin'})"
            ".then(r => r.json().then(j => [r.status, j.error.code]))")
        self.assertEqual(status, [403, 0x03000205])
        self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=alarms]").click()
        self.visible("page-alarms")
        self.wait_text("alarms-total", r"^\d+$")
        self.assertTrue(self.el("notice").get_attribute("hidden") is not None)

    def test_11_failed_sign_ins_count_down(self):
        """Three wrong passwords cost nothing; an attempt made soon after
        the next one is answered with the throttle's wait, shown as a
        count-down, never as a general failure."""
        self.open_console()
        self.visible("page-signin")
        Select(self.el("signin-scope")).select_by_value("4")
        self.el("signin-user").send_keys("auditor")
        self.el("signin-password").send_keys("wrong")
        submit = self.el("signin-submit")
        error = self.el("signin-error")
        # Later failures wait longer (1, 2, 4 s ...): however slow the machine,
        # a few more attempts meet the wait.
        for attempt in range(1, 9):
            self.wait.until(lambda d: submit.is_enabled())
            submit.click()
            self.wait.until(lambda d: len(self.gateway.access_lines("POST /sessions ")) >= attempt)
            self.wait.until(lambda d: submit.is_enabled() or error.get_attribute("data-wait"))
            if error.get_attribute("data-wait"):
                break
            self.assertIn("0x03000010", error.text)
        self.assertGreaterEqual(attempt, 4, "three failures cost nothing")
        self.assertIn("429", self.gateway.access_lines("POST /sessions ")[-1])
        text = self.wait_text("signin-error", r"try again in \d+ s")
        self.assertNotIn("Invalid", text)
        self.assertFalse(self.el("signin-submit").is_enabled(), "no sign-in while waiting")
        self.shot("signin-wait")
        self.wait_text("signin-error", "You can try again now.")
        self.assertTrue(self.el("signin-submit").is_enabled())
        # The count-down follows the answer's Retry-After, the wait that is
        # really left: the attempt it lets through reaches the backend.
        tries = len(self.gateway.access_lines("POST /sessions "))
        self.el("signin-submit").click()
        self.wait.until(lambda d: len(self.gateway.access_lines("POST /sessions ")) > tries)
        self.assertIn("POST /sessions 401 ", self.gateway.access_lines("POST /sessions ")[-1])
        self.wait_text("signin-error", "0x03000010")


    def test_12_tasks_poll_when_the_stream_cannot_be_had(self):
        # The browser is kept from /events: the page falls back to polling
        # and says so.
        self.driver.execute_cdp_cmd("Network.enable", {})
        self.driver.execute_cdp_cmd("Network.setBlockedURLs", {"urls": ["*/events"]})
        self.open_console()
        self.sign_in()
        self.wait_text("tasks-pager", r"of \d+")
        self.assertTrue(self.el("tasks-auto").is_selected())
        self.assertEqual(self.wait_text("tasks-live", "not available"),
                         "Live updates are not available; the list refreshes every 10 s.")
        self.assertEqual(self.el("tasks-live").get_attribute("data-state"), "polling")
        before = len(self.gateway.access_lines("GET /kestrel_task "))
        # The next list request comes by itself, within the ten seconds.
        self.wait.until(lambda d: len(self.gateway.access_lines("GET /kestrel_task ")) > before)
        # The check box is the keyboard's too.
        self.el("tasks-auto").send_keys(Keys.SPACE)
        self.assertFalse(self.el("tasks-auto").is_selected())
        self.assertFalse(self.el("tasks-live").is_displayed())
        # The blocked stream is the test's doing, not the page's.
        self.driver.get_log("browser")


    def test_13_each_scope_sees_what_it_may_do(self):
        """The auditor reads only: no certificates page, and its address
        leads to the tasks. An API client imports but has no other
        certificate page than the imports it may make."""
        self.open_console()
        self.sign_in(user="auditor", scope="1")
        link = self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=certificates]")
        self.assertFalse(link.is_displayed())
        for page in ("tasks", "alarms", "storage"):
            self.assertTrue(self.driver.find_element(
                By.CSS_SELECTOR, f"#nav a[data-page={page}]").is_displayed(), page)
        self.driver.get(self.gateway.base + "/console/#/certificates")
        self.visible("page-tasks")
        self.assertTrue(self.driver.current_url.endswith("#/tasks"))
        # What the page hides, the gateway refuses: the table decides.
        status = self.driver.execute_script(
            "const form = new FormData(); form.append('file', new Blob(['x']), 'x.pem');"
            "return fetch('/kestrel_cert/import_crl', {method: 'POST', body: form,"
            " credentials: 'same-origin', headers: {'X-Requested-With': 'nox-console'}})"
            ".then(r => r.json().then(j => [r.status, j.error.code]))")
        self.assertEqual(status, [403, 0x03000208])
        self.el("sign-out").click()
        self.visible("page-signin")
        self.sign_in()
        link = self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=certificates]")
        self.assertTrue(link.is_displayed())
        link.click()
        self.visible("page-certificates")
        self.assertTrue(self.el("crl-form").is_displayed())
        self.assertTrue(self.el("cert-form").is_displayed())
        self.assert_no_page_errors()

    # --- the rough edges ---------------------------------------------------

    def in_zone(self):
        """Puts the browser in ZONE, whatever the machine's zone is."""
        self.driver.execute_cdp_cmd("Emulation.setTimezoneOverride", {"timezoneId": ZONE})

    def test_14_one_time_format_per_language_with_the_zone(self):
        """Every time on the console is written as the task details write
        theirs, with the offset from UTC: 11/14/2023 22:13:20 in English,
        2023-11-14 22:13:20 in Chinese."""
        token = self.gateway.api_token()
        self.in_zone()
        self.open_console()
        self.sign_in()
        self.el("tasks-auto").click()
        _, page = self.gateway.request("GET", "/kestrel_task?start=0&limit=10&sort=-startTime",
                                       token)
        task = page["data"][0]
        local = datetime.fromtimestamp(task["startTime"], ZoneInfo(ZONE))
        english = local.strftime("%m/%d/%Y %H:%M:%S ") + ZONE_TEXT
        chinese = local.strftime("%Y-%m-%d %H:%M:%S ") + ZONE_TEXT
        cell = "#tasks-table tbody tr[data-task-id='%s'] td.time" % task["taskId"]
        self.wait.until(lambda d: d.find_element(By.CSS_SELECTOR, cell).text == english)
        self.driver.find_element(
            By.CSS_SELECTOR, "#tasks-table button.open-task[data-task-id='%s']" % task["taskId"]
        ).click()
        self.wait_text("task-start", "^%s$" % re.escape(english))
        # The detail text's own times have the same shape.
        _, detail = self.gateway.request("GET", "/kestrel_task/%s?LANGUAGE=en" % task["taskId"],
                                         token)
        if re.search(r"\d{2}/\d{2}/\d{4} \d{2}:\d{2}:\d{2}", detail["data"]["detail"]):
            self.assertRegex(english, r"^\d{2}/\d{2}/\d{4} \d{2}:\d{2}:\d{2} ")
        self.el("lang-switch").click()
        self.wait_text("task-start", "^%s$" % re.escape(chinese))
        self.assertEqual(self.driver.find_element(By.CSS_SELECTOR, cell).text, chinese)
        self.shot("tasks-zh")

    def test_15_language_kept_across_reloads(self):
        self.open_console()
        self.wait_text("signin-submit", "^Sign in$")
        self.el("lang-switch").click()
        self.wait_text("signin-submit", "登录")
        self.driver.refresh()
        self.visible("page-signin")
        self.wait_text("signin-submit", "^登录$")
        self.assertEqual(self.driver.execute_script("return document.documentElement.lang"),
                         "zh-CN")
        self.assertEqual(self.driver.execute_script(
            "return window.localStorage.getItem(arguments[0])", LANGUAGE_KEY), "zh")
        self.sign_in()
        self.wait_text("tasks-pager", "共")
        self.assert_no_secret_in_page_storage()
        self.el("lang-switch").click()
        self.driver.refresh()
        self.wait_text("tasks-pager", "of")

    def test_16_chinese_view_translates_the_file_fields_and_the_times(self):
        token = self.gateway.api_token()
        self.open_console()
        self.el("lang-switch").click()
        self.sign_in()
        self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=certificates]").click()
        self.visible("page-certificates")
        # The browser's own file button never shows; the console's does.
        size = self.driver.execute_script(
            "const r = arguments[0].getBoundingClientRect(); return r.width * r.height",
            self.el("cert-file"))
        self.assertLessEqual(size, 1)
        buttons = self.driver.find_elements(By.CSS_SELECTOR, "#page-certificates label.file-button")
        self.assertEqual([b.text for b in buttons], ["选择文件…", "选择文件…"])
        self.assertEqual(self.el("cert-file-name").text, "未选择文件")
        self.assertEqual([b.text for b in self.driver.find_elements(
            By.CSS_SELECTOR, "#page-certificates button[type=submit]")],
            ["上传证书", "上传吊销列表"])
        self.assertEqual(self.el("cert-file").accessible_name, "CA 证书文件 未选择文件")
        self.shot("certificates-zh")
        # The time filters: text fields in the language's format.
        self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=alarms]").click()
        self.visible("page-alarms")
        begin = self.el("alarms-begin")
        self.assertEqual(begin.get_attribute("type"), "text")
        self.assertEqual(begin.get_attribute("placeholder"), "YYYY-MM-DD hh:mm")
        _, first = self.gateway.request("GET", "/alarm/historyalarm?start=0&limit=50", token)
        raised = sorted(a["occurTime"] for a in first["data"]["alarms"])
        middle = raised[len(raised) // 2]
        local = datetime.fromtimestamp(middle - middle % 60)
        typed = local.strftime("%Y-%m-%d %H:%M")
        _, count = self.gateway.request(
            "GET", "/alarm/historyalarm/count?begintime=%d" % int(local.timestamp()), token)
        begin.send_keys(typed, Keys.TAB)
        self.wait_text("alarms-total", r"^%d$" % count["COUNT"])
        self.shot("alarms-zh")
        self.assertEqual(self.driver.find_element(By.CSS_SELECTOR, "#page-alarms .total").text,
                         "告警总数：%d" % count["COUNT"])
        # A time in another shape is refused with the format to use.
        begin.clear()
        begin.send_keys("11/14/2023", Keys.TAB)
        text = self.wait_text("alarms-error", "YYYY-MM-DD hh:mm")
        self.assertRegex(text, r"例如 \d{4}-\d{2}-\d{2} \d{2}:\d{2}")
        self.assertEqual(begin.get_attribute("aria-invalid"), "true")
        # Back in English the typed time is written again in English.
        begin.clear()
        begin.send_keys(typed, Keys.TAB)
        self.wait.until(lambda d: d.find_element(By.ID, "alarms-error").get_attribute("hidden"))
        self.el("lang-switch").click()
        self.assertEqual(begin.get_attribute("value"), local.strftime("%m/%d/%Y %H:%M"))
        self.assertEqual(begin.get_attribute("placeholder"), "MM/DD/YYYY hh:mm")

    def test_17_sign_in_returns_to_the_page_asked_for(self):
        self.open_console("#/alarms")
        self.visible("page-signin")
        self.sign_in(expect_success=False)
        self.visible("page-alarms")
        self.assertTrue(self.driver.current_url.endswith("#/alarms"))
        # Signing out and in again is a new start: the default page.
        self.el("sign-out").click()
        self.visible("page-signin")
        self.sign_in()

    def test_18_empty_files_are_refused_in_the_page(self):
        folder = tempfile.mkdtemp(prefix="nox-console-empty-")
        try:
            empty = os.path.join(folder, "empty.pem")
            open(empty, "wb").close()
            self.open_console()
            self.sign_in()
            self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=certificates]").click()
            self.visible("page-certificates")
            sent = len(self.gateway.access_lines("POST /kestrel_cert/import_crl"))
            self.el("crl-file").send_keys(empty)
            self.assertEqual(self.el("crl-file-name").text, "empty.pem")
            self.driver.find_element(By.CSS_SELECTOR, "#crl-form button[type=submit]").click()
            verdict = self.el("crl-verdict")
            self.wait.until(lambda d: verdict.get_attribute("data-outcome") == "empty")
            self.assertEqual(verdict.text, "The file is empty (0 bytes). It was not sent.")
            self.assertNotIn("PEM", verdict.text)
            time.sleep(0.5)
            self.assertEqual(len(self.gateway.access_lines("POST /kestrel_cert/import_crl")), sent,
                             "the empty file was not sent")
            self.el("lang-switch").click()
            self.wait_text("crl-verdict", "^文件为空（0 字节），未上传。$")
        finally:
            shutil.rmtree(folder, ignore_errors=True)

    def controls(self, root):
        """The controls and meters of `root` that show."""
        return [e for e in self.driver.find_elements(
            By.CSS_SELECTOR, "#%s :is(a, button, input, select, progress, meter)" % root)
            if e.is_displayed() or e.get_attribute("type") == "file"]

    def test_19_esc_closes_details_and_every_control_has_a_name(self):
        self.open_console()
        self.sign_in()
        self.el("tasks-auto").click()
        opener = self.wait.until(lambda d: d.find_element(
            By.CSS_SELECTOR, "#tasks-table tbody button.open-task"))
        task_id = opener.get_attribute("data-task-id")
        opener.send_keys(Keys.ENTER)
        self.visible("task-detail")
        self.wait.until(lambda d: d.find_element(By.ID, "task-detail")
                        .get_attribute("data-task-id") == task_id)
        names = {}
        for page in ("tasks", "alarms", "certificates", "storage"):
            if page != "tasks":
                self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=%s]" % page).click()
                self.visible("page-" + page)
            if page == "storage":
                self.wait_text("storage-name", r"\w")
            names[page] = [(e.tag_name, e.get_attribute("id"), e.accessible_name)
                           for e in self.controls("page-" + page)]
            for tag, element_id, name in names[page]:
                self.assertTrue(name.strip(), "%s#%s on %s has no name" % (tag, element_id, page))
        self.assertIn(("progress", "task-progress-bar", "Progress"), names["tasks"])
        self.assertTrue(any(n.startswith("Progress of ") for t, _, n in names["tasks"]
                            if t == "progress"), names["tasks"])
        self.assertIn(("meter", "storage-meter", "Share of the capacity used"), names["storage"])
        # The upload bars are named before they show.
        self.assertEqual(self.el("cert-progress").get_attribute("aria-label"), "Certificate upload")
        self.assertEqual(self.el("crl-progress").get_attribute("aria-label"), "CRL upload")
        # No two controls of the certificates page share a name.
        certificate_names = [n for _, _, n in names["certificates"]]
        self.assertEqual(len(certificate_names), len(set(certificate_names)), certificate_names)
        self.assertIn("CA certificate file No file chosen", certificate_names)
        self.assertIn("CRL file No file chosen", certificate_names)
        # Esc closes the details and gives the focus back to the row.
        self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=tasks]").click()
        self.visible("page-tasks")
        self.driver.find_element(
            By.CSS_SELECTOR, "#tasks-table button.open-task[data-task-id='%s']" % task_id).click()
        self.visible("task-detail")
        self.el("task-detail-title").send_keys(Keys.ESCAPE)
        self.wait.until(lambda d: not d.find_element(By.ID, "task-detail").is_displayed())
        self.assertEqual(self.driver.switch_to.active_element.get_attribute("data-task-id"),
                         task_id)

    def small_targets(self, root):
        """The controls of `root` less than 44 px high (a check box or a
        hidden file input: its label)."""
        small = []
        for element in self.controls(root):
            kind = element.get_attribute("type")
            if kind in ("checkbox", "file"):
                element = self.driver.execute_script(
                    "return arguments[0].closest('label') ||"
                    " document.querySelector(`label[for='${arguments[0].id}']`)", element)
            if element.tag_name in ("progress", "meter"):
                continue
            height = self.driver.execute_script(
                "return arguments[0].getBoundingClientRect().height", element)
            if height < 44:
                small.append((element.tag_name, element.get_attribute("id") or element.text,
                              height))
        return small

    def test_20_touch_targets_on_a_phone(self):
        self.driver.set_window_size(390, 844)
        self.open_console()
        self.visible("page-signin")
        Select(self.el("signin-scope")).select_by_value("0")
        self.assertEqual(self.small_targets("page-signin") + self.small_targets("nav"), [])
        self.sign_in()
        self.wait.until(lambda d: d.find_elements(By.CSS_SELECTOR, "#tasks-table tbody tr"))
        found = {"top": [e for e in self.small_targets("nav")]}
        for page in ("tasks", "alarms", "certificates", "storage"):
            if page != "tasks":
                self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=%s]" % page).click()
                self.visible("page-" + page)
            found[page] = self.small_targets("page-" + page)
            if page == "tasks":
                self.shot("tasks-phone-en")
        for button in ("lang-switch", "sign-out"):
            height = self.driver.execute_script(
                "return arguments[0].getBoundingClientRect().height", self.el(button))
            self.assertGreaterEqual(height, 44, button)
        self.assertEqual({k: v for k, v in found.items() if v}, {})

    def test_21_no_error_line_on_an_ordinary_visit(self):
        """The browser's console stays clean: no failed request, no error,
        signed out or in (the session question answers 200 either way)."""
        self.open_console()
        self.visible("page-signin")
        self.wait_text("signin-submit", "Sign in")
        time.sleep(0.5)
        self.assertEqual([e for e in self.driver.get_log("browser") if e["level"] == "SEVERE"], [])
        self.sign_in()
        self.wait_text("tasks-pager", "of")
        for page in ("alarms", "certificates", "storage", "tasks"):
            self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=%s]" % page).click()
            self.visible("page-" + page)
        self.el("lang-switch").click()
        self.driver.refresh()
        self.wait_text("tasks-pager", "共")
        time.sleep(0.5)
        self.assertEqual([e for e in self.driver.get_log("browser") if e["level"] == "SEVERE"], [])

    def test_22_console_files_carry_validators(self):
        def fetch(path, headers=None):
            req = urllib.request.Request(self.gateway.base + path, headers=headers or {})
            opener = urllib.request.build_opener(NoRedirect)
            try:
                with opener.open(req, timeout=30) as res:
                    return res.status, res.headers, res.read().decode()
            except urllib.error.HTTPError as e:
                return e.code, e.headers, e.read().decode()
        status, headers, body = fetch("/console/js/app.js")
        self.assertEqual(status, 200)
        tag = headers["ETag"]
        self.assertRegex(tag, r'^"[0-9a-f]{16}"$')
        self.assertEqual(headers["Cache-Control"], "no-cache")
        status, headers, body = fetch("/console/js/app.js", {"If-None-Match": tag})
        self.assertEqual((status, body), (304, ""))
        self.assertEqual(headers["ETag"], tag)
        status, headers, body = fetch("/console")
        self.assertEqual(status, 301)
        self.assertEqual(headers["Location"], "/console/")
        self.assertTrue(headers["Content-Type"].startswith("text/html"))
        self.assertIn('<a href="/console/">', body)
        status, headers, body = fetch("/console/session")
        self.assertEqual(status, 200)
        self.assertEqual(json.loads(body)["data"], {"signedIn": False})
        # A reload asks and is answered 304 (the browser keeps its copy).
        self.open_console()
        self.visible("page-signin")
        self.driver.get_log("performance")
        self.driver.refresh()
        self.visible("page-signin")
        statuses = {}
        for entry in self.driver.get_log("performance"):
            message = json.loads(entry["message"])["message"]
            if message["method"] == "Network.responseReceived":
                response = message["params"]["response"]
                statuses[response["url"].rsplit("/", 1)[-1]] = response["status"]
        self.assertEqual(statuses.get("app.js"), 304, statuses)


class ConsoleLiveTest(ConsoleTestBase):
    """The backend's tasks run (a step every STEP seconds) and the console
    follows them over GET /events."""
    STEP = 0.25

    @classmethod
    def gateway_options(cls):
        return ["--simulate", str(cls.STEP)]

    def running_row(self):
        """The id and progress of a running task the list shows with less
        than 90 %."""
        def find(driver):
            for row in driver.find_elements(By.CSS_SELECTOR, "#tasks-table tbody tr"):
                badge = row.find_element(By.CSS_SELECTOR, ".badge")
                bar = row.find_element(By.CSS_SELECTOR, "progress")
                if "status-2" in badge.get_attribute("class") and \
                        int(bar.get_attribute("value")) < 90:
                    return row.get_attribute("data-task-id"), int(bar.get_attribute("value"))
            return None
        return self.wait.until(find)

    def click_when_fresh(self, selector):
        """Clicks what `selector` names; a live update that replaced it
        meanwhile makes the click go to the new element."""
        def click(driver):
            driver.find_element(By.CSS_SELECTOR, selector).click()
            return True
        self.wait.until(click)

    def progress_of(self, task_id):
        return int(self.driver.find_element(
            By.CSS_SELECTOR, "#tasks-table tr[data-task-id='%s'] progress" % task_id)
            .get_attribute("value"))

    def test_progress_moves_on_screen_without_a_reload(self):
        self.open_console()
        self.sign_in()
        self.assertEqual(self.wait_text("tasks-live", "Live"),
                         "Live: progress and states update as they change.")
        self.assertEqual(self.el("tasks-live").get_attribute("data-state"), "live")
        self.driver.execute_script("window.noxSamePage = true")
        Select(self.el("tasks-status")).select_by_value("2")
        task_id, before = self.running_row()
        self.wait.until(lambda d: self.progress_of(task_id) > before)
        # Details follow too: their progress and their entries.
        self.click_when_fresh("#tasks-table button.open-task[data-task-id='%s']" % task_id)
        self.visible("task-detail")
        shown = self.wait_text("task-progress", r"\d+ %")
        # A running task has no fault: error information with code "0" shows nothing.
        self.assertFalse(self.el("task-error-box").is_displayed())
        self.wait.until(lambda d: d.find_element(By.ID, "task-progress").text != shown)
        self.assertTrue(self.driver.execute_script("return window.noxSamePage === true"),
                        "the page was not reloaded")
        self.shot("tasks-live")
        self.el("lang-switch").click()
        self.assertEqual(self.wait_text("tasks-live", "实时"), "实时：进度和状态随变化更新。")

    def test_new_alarms_raise_the_total(self):
        token = self.gateway.api_token()
        self.open_console()
        self.sign_in()
        self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=alarms]").click()
        self.visible("page-alarms")
        self.driver.execute_script("window.noxSamePage = true")
        first = int(self.wait_text("alarms-total", r"^\d+$"))
        # The simulation raises an alarm every few steps; the total follows.
        self.wait.until(lambda d: int(d.find_element(By.ID, "alarms-total").text) > first)
        _, count = self.gateway.request("GET", "/alarm/historyalarm/count", token)
        self.assertGreaterEqual(count["COUNT"], int(self.el("alarms-total").text))
        self.assertTrue(self.driver.execute_script("return window.noxSamePage === true"))


class Redis:
    """A redis-server on a free loopback port, keeping nothing on disk."""

    def __init__(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        self.process = subprocess.Popen(
            ["redis-server", "--port", str(self.port), "--bind", "127.0.0.1", "--save", "",
             "--appendonly", "no"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.time() + 20
        while time.time() < deadline:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
                return
            except OSError:
                time.sleep(0.1)
        raise RuntimeError("redis-server did not start")

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=30)


class ConsoleResumeTest(ConsoleTestBase):
    """A stream resumed with Last-Event-ID after the gateway restarted:
    every change once, none missing. Sessions live in Redis, so the
    session outlives the gateway; the backend's changes and their numbers
    live in its data folder."""
    redis = None

    @classmethod
    def setUpClass(cls):
        cls.redis = Redis()
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        try:
            super().tearDownClass()
        finally:
            cls.redis.stop()

    @classmethod
    def gateway_options(cls):
        return ["--state", "redis://127.0.0.1:%d" % cls.redis.port, "--simulate", "0.2"]

    def received(self):
        return self.driver.execute_script("return window.noxGot.slice()")

    def test_a_stream_resumed_after_a_restart_misses_nothing(self):
        self.open_console()
        self.sign_in()
        # A stream of the page's own, recording every event's id.
        self.driver.execute_script(
            "window.noxGot = []; window.noxStream = new EventSource('/events');"
            "for (const name of ['task', 'alarm', 'reset'])"
            "  window.noxStream.addEventListener(name, (e) =>"
            "    window.noxGot.push([name, Number(e.lastEventId)]));")
        self.wait.until(lambda d: len(self.received()) >= 5)
        before = len(self.received())
        self.assertEqual(self.gateway.restart(), 0)
        # The browser reconnects by itself, sending Last-Event-ID.
        self.wait.until(lambda d: len(self.received()) >= before + 10)
        self.driver.execute_script("window.noxStream.close()")
        got = self.received()
        self.assertNotIn("reset", [name for name, _ in got], got)
        ids = [number for _, number in got]
        self.assertEqual(ids, list(range(ids[0], ids[0] + len(ids))),
                         "every change once, in order, none missing")
        # The console itself went on too: it is live again after the restart.
        self.wait_text("tasks-live", "^Live")
        # The restart is the test's doing: the stream's reconnection is not an error.
        self.driver.get_log("browser")


class NoRedirect(urllib.request.HTTPRedirectHandler):
    def redirect_request(self, *args, **kwargs):
        return None


class ConsoleSessionExpiryTest(ConsoleTestBase):
    # Long enough that a busy machine never lets the session lapse between
    # the sign-in and the requests of the first page (two seconds once did).
    IDLE = 6

    @classmethod
    def gateway_options(cls):
        return ["--session-idle", str(cls.IDLE)]

    def test_expired_session_goes_back_to_sign_in(self):
        self.open_console()
        self.sign_in()
        self.driver.find_element(By.CSS_SELECTOR, "#nav a[data-page=storage]").click()
        self.visible("page-storage")
        self.wait_text("storage-name", r"\w")
        time.sleep(self.IDLE + 1.5)
        self.el("storage-reload").click()
        self.visible("page-signin")
        self.wait_text("notice", "Your session has expired")
        self.assertIn("Signing in takes you back to Storage.", self.el("notice").text)
        self.assertTrue(self.driver.current_url.endswith("#/signin"))
        self.shot("session-expired")
        # Signing in again goes back to the page the session ended on.
        self.sign_in(expect_success=False)
        self.visible("page-storage")
        self.assertTrue(self.driver.current_url.endswith("#/storage"))


class ConsoleCodeExpiryTest(ConsoleTestBase):
    # Short enough to wait for, long enough that the page shows a picture
    # for several seconds (it asks for the next one a second before the
    # end), even with a gateway built with the sanitizers on a busy machine.
    LIFETIME = 8

    @classmethod
    def gateway_options(cls):
        return ["--verify-code-lifetime", str(cls.LIFETIME)]

    def show_a_picture(self):
        self.open_console()
        self.visible("page-signin")
        Select(self.el("signin-scope")).select_by_value("0")
        image = self.el("signin-code-image")
        self.wait.until(lambda d: image.get_attribute("src").startswith("data:image/png;base64,"))
        return image

    def test_an_expiring_picture_is_replaced_by_itself(self):
        image = self.show_a_picture()
        first = image.get_attribute("src")
        asked = len(self.gateway.access_lines("GET /login "))
        self.assertFalse(self.el("signin-code-note").is_displayed())
        # No click: the page fetches the next challenge before this one ends,
        # and says why the picture changed.
        self.wait.until(lambda d: image.get_attribute("src") not in ("", None, first))
        self.assertGreater(len(self.gateway.access_lines("GET /login ")), asked)
        self.assertEqual(self.wait_text("signin-code-note", "expired"),
                         "The previous picture expired, so here is a new one.")
        self.shot("signin-code-renewed", at="signin-form")
        self.el("lang-switch").click()
        self.assertEqual(self.wait_text("signin-code-note", "过期"), "上一张图片已过期，已换成新图片。")
        # Asking for a new picture oneself needs no word.
        self.el("signin-new-code").click()
        self.wait.until(lambda d: not d.find_element(By.ID, "signin-code-note").is_displayed())

    def test_an_expired_answer_has_its_own_text(self):
        image = self.show_a_picture()
        # The page's clock stands still (its timer cannot replace the
        # picture) while the challenge dies at the gateway, as when a
        # computer sleeps with the page open.
        self.driver.execute_cdp_cmd("Emulation.setVirtualTimePolicy", {"policy": "pause"})
        shown = image.get_attribute("src")
        code = self.latest_challenge()
        time.sleep(self.LIFETIME + 1)
        self.el("signin-user").send_keys("admin")
        self.el("signin-password").send_keys(PASSWORD)
        self.el("signin-code").send_keys(code)
        self.el("signin-submit").click()
        # Every picture the page puts up from now on is written down: once
        # its clock runs again, the clock jumps ahead whenever the page is
        # idle, so each new picture's renewal falls due at once and the
        # picture is replaced over and over, mostly blank between two.
        self.driver.execute_script(
            "window.shownPictures = [];"
            "new MutationObserver(() => window.shownPictures.push(arguments[0].src))"
            ".observe(arguments[0], {attributes: true, attributeFilter: ['src']});", image)
        # The answer is read on the page's clock: let it run again. The
        # overdue renewal may fetch a new picture now; the answer still
        # belongs to the challenge the click sent.
        self.driver.execute_cdp_cmd("Emulation.setVirtualTimePolicy", {"policy": "advance"})
        self.assertEqual(self.wait_text("signin-error", "expired"),
                         "The verification code had expired. Type the characters of the new "
                         "picture.")
        self.wait.until(lambda d: any(
            src.startswith("data:image/png;base64,") and src != shown
            for src in d.execute_script("return window.shownPictures;")))
        self.el("lang-switch").click()
        self.assertEqual(self.wait_text("signin-error", "过期"), "验证码已过期，请输入新图片中的字符。")


def main():
    global ARGS
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--gateway", required=True)
    parser.add_argument("--out", required=True, help="folder for the screenshots")
    parser.add_argument("--chromium", default="/usr/bin/chromium")
    parser.add_argument("--chromedriver", default="/usr/bin/chromedriver")
    ARGS, rest = parser.parse_known_args()
    for tool in (ARGS.gateway, ARGS.chromium, ARGS.chromedriver):
        if not os.access(tool, os.X_OK):
            print("missing %s (scripts/install-deps.sh installs chromium and chromium-driver)"
                  % tool, file=sys.stderr)
            return 1
    program = unittest.main(argv=[sys.argv[0], "-v"] + rest, exit=False)
    return 0 if program.result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
