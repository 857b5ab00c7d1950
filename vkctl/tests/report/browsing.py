"""A real browser without a screen, its console and its requests."""

from __future__ import annotations

import io
import json
import shutil
import time
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from PIL import Image
from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.actions.wheel_input import ScrollOrigin
from selenium.webdriver.common.by import By
from selenium.webdriver.remote.webelement import WebElement
from selenium.webdriver.support.ui import Select

from vkctl.basics.types import Array

_PATIENCE = 120.0  # seconds: the browser draws in software, on machines that do other things too
# Drawing in software, in which a page is drawn alike everywhere.
_SOFTWARE = ("--use-angle=swiftshader", "--enable-unsafe-swiftshader")
_ALONE = (
    "--headless=new",
    "--no-sandbox",
    "--disable-dev-shm-usage",
    "--disable-background-networking",
    "--disable-component-update",
    "--no-first-run",
    "--hide-scrollbars",
    "--window-size=1050,1350",
)


class Browser:
    """A page under test."""

    def __init__(self, *, webgl: bool = True) -> None:
        chromium, driver = shutil.which("chromium"), shutil.which("chromedriver")
        if chromium is None or driver is None:
            pytest.skip("there is no Chromium: apt-get install chromium chromium-driver")
        options = Options()
        options.binary_location = chromium
        for argument in (*_ALONE, *(_SOFTWARE if webgl else ("--disable-3d-apis",))):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        self.driver = webdriver.Chrome(options=options, service=Service(driver))
        self.driver.set_script_timeout(_PATIENCE)

    def close(self) -> None:
        self.driver.quit()

    def open(self, page: Path | str) -> None:
        """Open a page and wait until it has drawn the part or knows that it can't."""
        self.errors(), self.requests()  # those of the page before
        self.driver.get(page if isinstance(page, str) else page.resolve().as_uri())
        self.until("['ready', 'unable'].includes(document.documentElement.dataset.viewer)")

    def until(self, condition: str) -> None:
        """Wait until a condition in JavaScript holds."""
        end = time.monotonic() + _PATIENCE
        while not self.run(f"return Boolean({condition})"):
            assert time.monotonic() < end, f"never: {condition}; {self.errors()}"
            time.sleep(0.05)

    def run(self, script: str) -> Any:
        return self.driver.execute_script(script)

    def drawn(self) -> None:
        """Wait until what was asked for has been drawn."""
        self.driver.execute_async_script(
            "const done = arguments[0]; viewer.then(async (v) => { await v.queue; "
            "requestAnimationFrame(() => requestAnimationFrame(done)); });"
        )

    def find(self, name: str) -> WebElement:
        return self.driver.find_element(By.ID, name)

    def press(self, name: str) -> None:
        """Click what has an id, as a reader does."""
        self.find(name).click()
        self.drawn()

    def choose(self, name: str, text: str) -> None:
        """Choose an entry of a list by its text."""
        Select(self.find(name)).select_by_visible_text(text)
        self.drawn()

    def type(self, name: str, text: str) -> None:
        """Put a text into a field and leave it."""
        self.find(name).clear()
        self.find(name).send_keys(text + "\t")
        self.drawn()

    def slide(self, name: str, value: int) -> None:
        """Move a slider."""
        self.run(
            f"const s = document.getElementById('{name}'); s.value = {value};"
            "s.dispatchEvent(new Event('input', { bubbles: true }));"
        )
        self.drawn()

    def drag(self, element: WebElement, across: int, down: int) -> None:
        """Pull with the left button held."""
        actions = ActionChains(self.driver).move_to_element(element).click_and_hold()
        actions.move_by_offset(across, down).release().perform()
        self.drawn()

    def wheel(self, element: WebElement, amount: int) -> None:
        """Turn the wheel over the element."""
        origin = ScrollOrigin.from_element(element)
        ActionChains(self.driver).scroll_from_origin(origin, 0, amount).perform()
        self.drawn()

    def text(self, name: str) -> str:
        return self.find(name).text

    def pixels(self, name: str = "part") -> Array:
        """What an element looks like (height, width, 3)."""
        picture = Image.open(io.BytesIO(self.find(name).screenshot_as_png)).convert("RGB")
        return np.asarray(picture).astype(np.int64)

    def errors(self) -> list[str]:
        """What the console has said since the last time, but for mere information."""
        entries = self.driver.get_log("browser")
        return [entry["message"] for entry in entries if entry["level"] != "INFO"]

    def requests(self) -> list[str]:
        """Addresses asked for since the last time, without what came with the page."""
        logged = self.driver.get_log("performance")
        events = [json.loads(entry["message"])["message"] for entry in logged]
        asked = [
            event["params"]["request"]["url"]
            for event in events
            if event["method"] == "Network.requestWillBeSent"
        ]
        return [url for url in asked if not url.startswith(("data:", "blob:"))]


def covered(pixels: Array) -> float:
    """Share of an element that isn't white."""
    return float((pixels.min(axis=2) < 250).mean())
