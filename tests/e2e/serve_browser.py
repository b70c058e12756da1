"""serve_browser.py URL TOKEN SCREENSHOT.png (e2e_serve.sh): the page of serve in headless Chromium:
a live value changes, a bad value shows the refusal beside its input, DM100 is written, a screenshot kept."""
import statistics
import sys
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

url, token, shot = sys.argv[1:4]
profile = tempfile.TemporaryDirectory()
options = Options()
options.binary_location = "/usr/bin/chromium"
for a in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
          "--disable-background-networking", "--disable-component-update", "--disable-sync",
          "--user-data-dir=" + profile.name, "--window-size=1000,760"):
    options.add_argument(a)
browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
wait = WebDriverWait(browser, 20, poll_frequency=0.05)


def cell(name, part):
    return browser.find_element(By.CSS_SELECTOR, f'tr[data-name="{name}"] .{part}')


def write(name, value, result):
    box = cell(name, "wv")
    box.clear()
    box.send_keys(value)
    cell(name, "wb").click()
    wait.until(lambda _: result in cell(name, "wr").text)


try:
    browser.get(url + "/#token=" + token)
    first = wait.until(lambda _: cell("DM0", "value").text not in ("", "…") and cell("DM0", "value").text)
    wait.until(lambda _: cell("DM0", "value").text != first)
    assert "token" not in browser.current_url, "the token stayed in the address bar"
    assert browser.find_element(By.ID, "link").get_attribute("class") == "up"
    write("DM1", "70000", "value 70000 is too large for DM (at most 65535)")
    write("DM100", "1234", "written")
    wait.until(lambda _: cell("DM100", "value").text == "1234 (0x04D2)")
    delays = browser.execute_script("return window.kvServe.latencies")
    print(f"host's change report to the page, ms, {len(delays)} changes: "
          f"median {statistics.median(delays):.0f}, max {max(delays)}")
    browser.execute_script("window.scrollTo(0, 0)")
    browser.save_screenshot(shot)
finally:
    browser.quit()
    profile.cleanup()
