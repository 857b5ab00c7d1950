"""The page in a real browser: it draws, its controls work, and it asks nobody for anything."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import matplotlib as mpl
import numpy as np
import pytest
from stress.states import VK_RUND

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.report import write_report
from vkctl.running.run import run
from vkctl.shapes.boxes import box

from .browsing import Browser, covered
from .conftest import EVIL


@pytest.fixture
def page(browser: Browser, report: Path) -> Iterator[Browser]:
    """The report, freshly opened; nothing may have gone wrong when the test is over."""
    browser.open(report)
    yield browser
    assert browser.errors() == []
    assert browser.requests() == [report.resolve().as_uri()]


def change(before: Array, after: Array) -> float:
    """Share of the pixels that differ."""
    return float((np.abs(before - after).max(axis=2) > 8).mean())


def test_the_part_is_drawn_beside_its_scale(page: Browser) -> None:
    assert page.run("return document.documentElement.dataset.viewer") == "ready"
    assert 0.1 < covered(page.pixels()) < 0.9
    assert len(np.unique(page.pixels().reshape(-1, 3), axis=0)) > 100
    assert page.text("caption").startswith("load case 1, pull: von Mises stress, deformation × ")
    numbers = [float(line) for line in page.text("bar-numbers").split()]
    assert len(numbers) == 5
    assert numbers == sorted(numbers, reverse=True)


@pytest.mark.thorough
def test_colours_are_those_that_the_scale_has_for_the_values(page: Browser) -> None:
    """Looked at along y, the face y- of a box whose displacement is known by its place."""
    page.choose("field", "displacement")
    for name in ("supports", "loads", "peaks", "still", "view-y"):
        page.press(name)
    shown = page.pixels()[2:-100, 2:-2]  # without the axes and the bar of lengths
    rows, columns = np.nonzero(shown.min(axis=2) < 250)
    top, left = rows.min(), columns.min()
    scale = mpl.colormaps["viridis"]
    largest = 0.01 * np.sqrt(8.0**2 + 4.0**2 + 4.0**2)
    width = _width_of_part(shown, int(top) + 5)
    for across, up in ((0.2, 0.3), (0.5, 0.5), (0.9, 0.9)):
        x, z = 8.0 * across, 4.0 * up
        wanted = 255 * np.array(scale(0.01 * np.hypot(x, z) / largest)[:3])
        pixel = shown[round(top + (1 - up) * width / 2), round(left + across * width)]
        hue = pixel / np.linalg.norm(pixel) - wanted / np.linalg.norm(wanted)
        assert np.abs(hue).max() < 0.08, (across, up, pixel, wanted)


def _width_of_part(shown: Array, row: int) -> int:
    return int((shown[row].min(axis=1) < 250).sum())


def test_load_case_and_field_are_switched(page: Browser) -> None:
    before = page.pixels()
    page.choose("field", "displacement")
    assert change(before, page.pixels()) > 0.05
    assert "load case 1, pull: displacement" in page.text("caption")
    largest = page.text("extremes")
    page.choose("case", f"load case 2, {EVIL}")
    assert page.text("caption").startswith(f"load case 2, {EVIL}: displacement")
    assert page.text("extremes") != largest
    assert "0.196" in page.text("extremes")  # twice that of load case 1


@pytest.mark.thorough
def test_a_name_that_is_a_script_stays_a_text(page: Browser) -> None:
    assert page.driver.title == "box"
    assert EVIL in page.find("cases").find_element("xpath", "..").text


@pytest.mark.thorough
def test_the_deformation_is_scaled(page: Browser) -> None:
    exaggerated = page.pixels()
    page.press("still")
    at_rest = page.pixels()
    assert change(exaggerated, at_rest) > 0.005
    assert page.text("caption").endswith("deformation × 0.000")
    page.press("true")
    assert page.text("caption").endswith("deformation × 1.000")
    page.type("factor", "2.5")
    assert page.text("caption").endswith("deformation × 2.500")
    page.press("fitting")
    assert change(exaggerated, page.pixels()) < 0.002
    page.slide("scale", 0)
    assert change(at_rest, page.pixels()) < 0.002


@pytest.mark.thorough
def test_a_cut_takes_one_side_away_and_shows_the_inside(page: Browser) -> None:
    page.press("still")
    whole = page.pixels()
    page.choose("axis", "x")
    assert page.text("cut-place") == "x = 4.000"
    half = page.pixels()
    assert covered(half) < 0.8 * covered(whole)
    page.press("turned")
    other = page.pixels()
    assert covered(other) < 0.9 * covered(whole)
    assert change(half, other) > 0.1
    page.slide("at", 100)
    assert change(other, page.pixels()) > 0.05
    page.choose("axis", "nothing")
    assert change(whole, page.pixels()) < 0.002


@pytest.mark.thorough
def test_the_cut_face_is_closed_and_coloured(page: Browser) -> None:
    page.choose("axis", "x")
    area, scale = page.run(
        "return viewer.then((v) => { const p = v.stage.objects.get('section').said.places;"
        "let area = 0;"
        "for (let i = 0; i < p.length; i += 9) {"
        "  const [a, b] = [3, 6].map((k) => [0, 1, 2].map((d) => p[i + k + d] - p[i + d]));"
        "  area += Math.abs(a[1] * b[2] - a[2] * b[1]) / 2; }"
        "return [area, v.scale]; })"
    )
    assert area == pytest.approx((4.0 * (1 + 0.01 * scale)) ** 2, rel=1e-3)


@pytest.mark.thorough
def test_views_and_turning_change_what_is_seen(page: Browser) -> None:
    seen = [page.pixels()]
    for name in ("view-x", "view-y", "view-z", "view-corner"):
        page.press(name)
        seen.append(page.pixels())
    assert all(change(a, b) > 0.05 for a, b in zip(seen[:3], seen[1:4], strict=True))
    assert change(seen[0], seen[4]) < 0.002
    part = page.find("part")
    page.drag(part, 120, 40)
    assert change(seen[4], page.pixels()) > 0.05
    near = covered(page.pixels())
    page.wheel(part, -400)
    assert covered(page.pixels()) > 1.1 * near


@pytest.mark.thorough
def test_supports_loads_extremes_and_edges_are_marked(page: Browser) -> None:
    page.press("still")
    for name in ("supports", "loads", "peaks", "edges"):
        before = page.pixels()
        page.press(name)
        assert change(before, page.pixels()) > 0.0001, name  # of one dot half is seen


@pytest.mark.thorough
def test_arrows_of_loads_are_whole_in_a_narrow_window(browser: Browser, tmp_path: Path) -> None:
    """A slender bar that is pulled and grows longer, as wide as the picture."""
    part = box("hex8", (12, 1, 1), (12.0, 1.0, 1.0))
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (3.0, 0.0, 0.0)))
    write(Model(part.nodes, part.elements, [Material.isotropic(1e3, 0.3)], [case]), tmp_path)
    assert run(tmp_path, vk_rund=VK_RUND).ok
    write_report(tmp_path, tmp_path / "bar.html")
    size = browser.driver.get_window_size()
    try:
        browser.driver.set_window_size(640, 900)
        browser.open(tmp_path / "bar.html")
        browser.press("view-y")
        red, green, blue = np.moveaxis(browser.pixels("canvas"), 2, 0)
    finally:
        browser.driver.set_window_size(size["width"], size["height"])
    arrows = (red > 90) & (green < 70) & (blue < 70)
    across = np.flatnonzero(arrows.any(axis=0))
    assert arrows.sum() > 30 and across.max() < arrows.shape[1] - 5


@pytest.mark.thorough
def test_limits_of_the_scale_are_taken(page: Browser) -> None:
    page.choose("field", "displacement")
    own = page.pixels()
    page.type("most", "1.0")
    assert page.text("bar-numbers").split()[0] == "1.000"
    assert change(own, page.pixels()) > 0.05
    page.type("most", "")
    page.press("alike")
    assert float(page.text("bar-numbers").split()[0]) == pytest.approx(0.196, abs=1e-3)


@pytest.mark.thorough
def test_on_paper_pictures_stand_for_the_model(page: Browser) -> None:
    page.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"media": "print"})
    try:
        assert not page.find("part").is_displayed()
        pictures = page.driver.find_elements("css selector", ".still img")
        assert len(pictures) == 2
        assert all(one.is_displayed() for one in pictures)
        assert all(page.run("return [...document.images].map((i) => i.naturalWidth > 500)"))
    finally:
        page.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"media": ""})


@pytest.mark.thorough
def test_without_webgl_the_page_says_so_and_shows_pictures(report: Path) -> None:
    browser = Browser(webgl=False)
    try:
        browser.open(report)
        assert browser.run("return document.documentElement.dataset.viewer") == "unable"
        assert "can't draw" in browser.driver.find_element("css selector", ".unable").text
        assert not browser.find("part").is_displayed()
        assert browser.driver.find_element("css selector", ".still img").is_displayed()
        assert browser.errors() == []
        assert browser.requests() == [report.resolve().as_uri()]
    finally:
        browser.close()
