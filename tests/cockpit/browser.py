"""A browser, driven as people use it: what is on a page is found by its role and its accessible name, as
a screen reader is told them."""

import contextlib
import re

from selenium import webdriver
from selenium.common.exceptions import (ElementClickInterceptedException, ElementNotInteractableException,
                                        StaleElementReferenceException, WebDriverException)
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from bed import DOOR_PORT, PASSWORD, wait_until

ADDRESS = f"http://127.0.0.1:{DOOR_PORT}"
PAGE = "/cockpit/@localhost/kelotls/index.html"
FRAME = "iframe[name='cockpit1:localhost/kelotls']"

# Where a session has ended while its window was open, the frame is there and holds nothing.
WHAT_IS_OPEN = f"""
if (document.getElementById("login-user-input")) return "login";
const frame = document.querySelector({FRAME!r});
const title = frame && frame.contentDocument && frame.contentDocument.title;
return title === "Forbidden" ? "login" : frame && frame.contentDocument.querySelector("h1") ? "page" : null;
"""


class Found:
    """Something on the page."""

    def __init__(self, page, node):
        self.page = page
        self.backend = node["backendDOMNodeId"]
        self.role = node["role"]["value"]
        self.name = node.get("name", {}).get("value", "")
        self.description = node.get("description", {}).get("value", "")
        self.states = {state["name"]: state["value"].get("value") for state in node.get("properties", ())}

    @property
    def element(self):
        return self.page.element(self.backend)

    @property
    def text(self):
        return self.element.text

    @property
    def is_enabled(self):
        return not self.states.get("disabled")

    def click(self):
        self.element.click()


class Browser:
    """One window with its own cookies."""

    def __init__(self, downloads="/tmp/downloads", size=(1280, 900)):
        options = webdriver.ChromeOptions()
        for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", "--lang=en-US",
                     "--no-first-run", "--disable-extensions", "--disable-background-networking",
                     "--force-device-scale-factor=1", f"--window-size={size[0]},{size[1]}"):
            options.add_argument(word)
        options.add_experimental_option("prefs", {"download.default_directory": downloads,
                                                  "intl.accept_languages": "en-US"})
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self._document = "document"
        self._user = None
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)

    def quit(self):
        self.driver.quit()

    # Coming and going

    def come(self, user):
        """To the page, in the session of the test before where that was the same user's."""
        if self._user != user:
            self.log_in(user)
            return
        self.driver.get(ADDRESS + PAGE)
        if self.script("return document.getElementById('login-user-input') !== null"):  # it has ended
            self.log_in(user)

    def log_in(self, user, path=PAGE):
        """By Cockpit's own login page, which is shown instead of the page until then."""
        self.forget()
        self.driver.execute_cdp_cmd("Network.clearBrowserCookies", {})
        self.driver.get(ADDRESS + path)
        self.wait(lambda: self.driver.find_element(By.ID, "login-user-input").is_displayed(), "the login page")
        self.driver.find_element(By.ID, "login-user-input").send_keys(user)
        self.driver.find_element(By.ID, "login-password-input").send_keys(PASSWORD, Keys.ENTER)
        self.wait(lambda: self.script("return document.getElementById('login-user-input') === null"), "logged in")
        self._user = user if path == PAGE else None

    def open(self, place="/"):
        """A view of the page, loaded anew."""
        self.driver.get("about:blank")
        self.driver.get(f"{ADDRESS}{PAGE}#{place}")

    def open_in_shell(self, place="/"):
        """The same as an administrator has it: framed by Cockpit's own pages. What is found, then, is in the
        frame; leave_frame() leads back to what is around it. False where the session has ended."""
        self.leave_frame()
        self.driver.get("about:blank")
        self.driver.get(f"{ADDRESS}/kelotls#{place}")
        self.wait(lambda: self.script(WHAT_IS_OPEN), "the page, or a login")
        if self.script(WHAT_IS_OPEN) == "page":
            self.enter_frame()
            return True
        return False

    def enter_frame(self):
        self.leave_frame()
        frame = self.wait(lambda: self.driver.find_element(By.CSS_SELECTOR, FRAME), "the page's frame")
        self.driver.switch_to.frame(frame)
        self._document = f"document.querySelector({FRAME!r}).contentDocument"

    def leave_frame(self):
        self.driver.switch_to.default_content()
        self._document = "document"

    def forget(self):
        """Everything that the browser has kept but for the session itself."""
        self.leave_frame()
        self.driver.get("about:blank")
        for command, arguments in (
                ("Network.deleteCookies", {"name": "CockpitLang", "url": ADDRESS}),
                ("Storage.clearDataForOrigin", {"origin": ADDRESS, "storageTypes": "local_storage"}),
                ("Emulation.setEmulatedMedia", {"features": []}),
                ("Emulation.clearDeviceMetricsOverride", {})):
            self.driver.execute_cdp_cmd(command, arguments)
        self.driver.get_log("browser")

    def set_width(self, width, height=900):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def set_dark(self, is_dark=True):
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if is_dark else "light"}]})

    def set_language(self, language):
        self.driver.add_cookie({"name": "CockpitLang", "value": language, "path": "/"})

    # Finding

    def nodes(self, role, within=None):
        """What the accessibility tree holds of this role."""
        if within is None:
            root = {"objectId": self._object(self._document)}
        else:
            root = {"backendNodeId": within.backend}
        answer = self.driver.execute_cdp_cmd("Accessibility.queryAXTree", {**root, "role": role})
        return [Found(self, node) for node in answer["nodes"]
                if not node.get("ignored") and "backendDOMNodeId" in node]

    def _object(self, expression):
        answer = self.driver.execute_cdp_cmd("Runtime.evaluate", {"expression": expression})
        return answer["result"]["objectId"]

    def element(self, backend):
        handle = self.driver.execute_cdp_cmd("DOM.resolveNode", {"backendNodeId": backend})["object"]["objectId"]
        self.driver.execute_cdp_cmd("Runtime.callFunctionOn", {
            "objectId": handle, "functionDeclaration": "function() { this.ownerDocument.defaultView.foundByTest = this; }"})
        return self.driver.execute_script("return window.foundByTest")

    def find_all(self, role, name=None, within=None):
        """name: the whole accessible name, or a pattern for a part of it."""
        try:
            found = self.nodes(role, within)
        except WebDriverException:  # the page is about to be another
            return []
        if name is None:
            return found
        if isinstance(name, re.Pattern):
            return [each for each in found if name.search(each.name)]
        return [each for each in found if each.name == name]

    def has(self, role, name=None, within=None):
        return bool(self.find_all(role, name, within))

    def get(self, role, name=None, within=None):
        """The one that there is, once there is one."""
        found = wait_until(lambda: self.find_all(role, name, within),
                           lambda: f"{role} {name!r} on\n{self.outline()}")
        assert len(found) == 1, f"{len(found)} of {role} {name!r} on\n{self.outline()}"
        return found[0]

    def wait(self, condition, what):
        """Until it is so, although what it looks at may be drawn anew meanwhile."""
        def holds():
            with contextlib.suppress(StaleElementReferenceException, WebDriverException):
                return condition()
            return False
        return wait_until(holds, lambda: f"{what() if callable(what) else what}, on\n{self.outline()}")

    def wait_for(self, role, name=None, within=None):
        return self.wait(lambda: self.find_all(role, name, within), f"{role} {name!r}")[0]

    def wait_gone(self, role, name=None):
        self.wait(lambda: not self.has(role, name), f"{role} {name!r} is gone")

    def wait_text(self, text, role="main", name=None):
        """Until what is shown there holds the text, or matches the pattern."""
        pattern = text if isinstance(text, re.Pattern) else re.compile(re.escape(text))
        return self.wait(lambda: pattern.search(self.find_all(role, name)[0].text) if self.has(role, name)
                         else None, f"{pattern.pattern!r} in {role} {name!r}")

    def rows(self):
        """What is written in each row of the tables, heads included."""
        return [" ".join(text.split()) for text in self.script(
            "return [...document.querySelectorAll('tr')].map(row => row.innerText)")]

    def wait_row(self, name, *texts):
        """Until a row holds the name, and these in this order."""
        pattern = re.compile(".*".join(map(re.escape, texts)))
        self.wait(lambda: any(name in row and pattern.search(row) for row in self.rows()),
                  lambda: f"a row with {name!r} and {texts} among {self.rows()}")

    def wait_table(self, name):
        return self.wait(lambda: self.find_all("grid", name) or self.find_all("table", name), f"table {name!r}")[0]

    def wait_toast(self, text):
        """What is said beside the page once something is done."""
        self.wait_for("heading", re.compile(re.escape(text)))

    # Doing

    def click(self, role, name=None, dialog=None):
        """Once it is there and enabled; nothing may lie over it. dialog: the name of the one in which it is."""
        def try_click():
            around = self.find_all("dialog", dialog) if dialog else [None]
            found = [each for each in self.find_all(role, name, around[0]) if each.is_enabled] if around else ()
            if not found:
                return False
            assert len(found) == 1, f"{len(found)} of {role} {name!r} on\n{self.outline()}"
            try:
                found[0].click()
            except (ElementClickInterceptedException, ElementNotInteractableException,
                    StaleElementReferenceException):
                return False
            return True
        self.wait(try_click, f"{role} {name!r} can be clicked")

    def fill(self, role, name, text, within=None):
        element = self.get(role, name, within).element
        element.send_keys(Keys.CONTROL, "a")
        element.send_keys(text)

    def press(self, *keys):
        self.driver.switch_to.active_element.send_keys(*keys)

    @property
    def focused(self):
        """The role and name of what has the keyboard."""
        answer = self.driver.execute_cdp_cmd("Accessibility.getPartialAXTree", {
            "objectId": self._object(self._document + ".activeElement"), "fetchRelatives": False})
        return Found(self, answer["nodes"][0])

    def tab_to(self, role, name, most=200, key=Keys.TAB):
        """By the keyboard alone."""
        seen = []
        for _ in range(most):
            focused = self.focused
            seen.append(f"{focused.role} {focused.name!r}")
            is_it = name.search(focused.name) if isinstance(name, re.Pattern) else focused.name == name
            if focused.role == role and is_it:
                return focused
            self.press(key)
        raise AssertionError(f"the tabulator does not lead to {role} {name!r}, but to\n" + "\n".join(seen))

    def script(self, source, *arguments):
        return self.driver.execute_script(source, *arguments)

    # Telling

    def outline(self):
        """What there is, for who reads a failure; of a dialog, that alone."""
        try:
            dialogs = self.find_all("dialog")
            answer = self.driver.execute_cdp_cmd("Accessibility.queryAXTree", {"backendNodeId": dialogs[0].backend}
                                                 if dialogs else {"objectId": self._object(self._document)})
            lines = []
            for node in answer["nodes"]:
                role, name = node["role"]["value"], node.get("name", {}).get("value", "")
                if (node.get("ignored") or role in ("generic", "none", "InlineTextBox", "LineBreak", "rowgroup")
                        or role == "StaticText" and lines and name in lines[-1]):
                    continue
                lines.append(f"    {role} {name!r}")
        except WebDriverException as error:
            return f"    nothing: {error.msg}"
        return "\n".join([f"    {self.driver.current_url}", *lines[:120],
                          *(f"    {entry['level']}: {entry['message']}" for entry in self.driver.get_log("browser"))])


class Dialog:
    """What is done in the dialog of this name, which is open."""

    def __init__(self, page, name):
        self.page = page
        self.name = name
        page.wait_for("dialog", name)

    @property
    def found(self):
        return self.page.wait_for("dialog", self.name)

    def click(self, role, name):
        self.page.click(role, name, self.name)

    def get(self, role, name=None):
        return self.page.wait(lambda: self.page.find_all(role, name, self.found), f"{role} {name!r} in {self.name}")[0]

    def has(self, role, name=None):
        return self.page.has(role, name, self.found)

    def wait_for(self, role, name=None):
        return self.get(role, name)

    def fill(self, role, name, text):
        element = self.get(role, name).element
        element.send_keys(Keys.CONTROL, "a")
        element.send_keys(text)

    def wait_text(self, text):
        return self.page.wait_text(text, "dialog", self.name)

    def wait_gone(self):
        self.page.wait_gone("dialog", self.name)
