"""Pages in a browser without a window, for checks of what they show."""
import html
import json
import re
import shutil
import subprocess
import sys
import tempfile

WIDTH = 1000
SKIPPED = 77


def require(browser):
    if shutil.which(browser) is None:
        print(f"there is no {browser}: scripts/setup.sh test-pages")
        sys.exit(SKIPPED)


def found_in(browser, page, script, folder):
    """What a script, which runs behind the page's own, puts into the object found."""
    ending = "<pre id=found></pre><script>{const found = {};" + script + \
        "document.getElementById('found').textContent = JSON.stringify(found);}</script></body>"
    tried = folder / ("tried-" + page.name)
    tried.write_text(page.read_text().replace("</body>", ending))
    dump = run(browser, folder, "--dump-dom", tried.as_uri())
    answer = re.search(r'<pre id="found">(.*?)</pre>', dump, re.DOTALL)
    assert answer and answer[1], f"the page's script failed in {tried}"
    return json.loads(html.unescape(answer[1]))


def run(browser, folder, *words):
    profile = tempfile.mkdtemp(dir=folder)
    return subprocess.run([browser, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", f"--user-data-dir={profile}",
                           f"--window-size={WIDTH},900", *words],
                          check=True, capture_output=True, text=True, timeout=120).stdout


def expect(found, **wanted):
    for name, value in wanted.items():
        assert found[name] == value, f"{name}: {found[name]!r}, expected {value!r}"


def differing_schemes(browser, page, folder):
    """Both colour schemes are drawn, and differ. The pictures stay in the folder."""
    pictures = []
    for name, scheme in (("light", 1), ("dark", 0)):
        picture = folder / f"{page.stem}-{name}.png"
        run(browser, folder, f"--blink-settings=preferredColorScheme={scheme}", f"--screenshot={picture}", page.as_uri())
        pictures.append(picture.read_bytes())
    assert pictures[0] != pictures[1], "light and dark look alike"
