"""Typing and clicking, timed as the agent sees them: one whole process per
request. Runs inside a virtual desktop; see bench/typing. (Not typing.py,
which would shadow Python's module of that name.)"""

import argparse
import difflib
import json
import os
import random
import signal
import statistics
import subprocess
import sys
import tempfile
import time

# Prose-like text: mostly ASCII words, with accented Latin, Greek, CJK and
# emoji mixed in, each drawn from a set that no single layout covers.
CATEGORIES = [
    (0.55, "the quick brown fox jumps over a lazy dog while seven wizards quietly box".split()),
    (0.12, list("éèçñöüßåØÉàâêîôûëïÿæœ")),
    (0.10, list("αβγδεζηθλμνξπρστφχψωΩΦΣΔ")),
    (0.15, list("漢字日本語中文東京書雨花海山川木林森火水金土月星空風雪春夏秋冬人口目耳手足心")),
    (0.08, ["😀", "🚀", "🎉", "🌍", "✨", "👍", "🍕", "🐍"]),
]


def mixed_text(length, line_length, seed):
    """`length` characters, a line break after every `line_length`."""
    rng = random.Random(seed)
    weights = [weight for weight, _ in CATEGORIES]
    chars, column = [], 0
    while len(chars) < length:
        pieces = rng.choices([pieces for _, pieces in CATEGORIES], weights)[0]
        piece = rng.choice(pieces)
        if piece.isascii():
            piece += " "
        for c in piece:
            if len(chars) == length:
                break
            if column == line_length:
                chars.append("\n")
                column = 0
                if len(chars) == length:
                    break
            chars.append(c)
            column += 1
    return "".join(chars[:length])


class Fixture:
    def __init__(self, path):
        self.process = subprocess.Popen(
            [path], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True
        )
        if self.process.stdout.readline().strip() != "ready":
            sys.exit("the fixture did not start")

    def command(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline().strip()
        if answer != "ok":
            sys.exit(f"the fixture refused {line!r}: {answer}")

    def close(self):
        self.process.stdin.close()
        self.process.wait(timeout=10)


class Bridge:
    def __init__(self, path):
        self.path = path

    def run(self, request):
        """The reply and the whole process's wall time in seconds."""
        data = json.dumps(request).encode()
        start = time.perf_counter()
        done = subprocess.run([self.path], input=data, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        elapsed = time.perf_counter() - start
        return json.loads(done.stdout or b"{}"), elapsed

    def observe(self, patience=15.0):
        """The observation; asked again for a while when refused (a browser
        may be busy with a backlog of keys)."""
        deadline = time.monotonic() + patience
        while True:
            reply, _ = self.run({"version": 1, "operation": "context"})
            if reply.get("ok"):
                return reply["result"]
            if time.monotonic() > deadline:
                sys.exit(f"observation refused: {reply}")
            time.sleep(0.5)


LAUNCH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e",
                      "launch-app")
TEXTAREA_PAGE = """<!doctype html>
<html><head><meta charset="utf-8"><title>Typing Page</title></head><body>
<textarea id="notes" style="width:90%;height:500px"></textarea></body></html>
"""


class Page:
    """A browser on a page that holds one empty textarea, started by
    tests/e2e/launch-app; the textarea takes the place of the fixture's
    Notes editor."""

    def __init__(self, browser, bridge):
        folder = os.path.join(os.environ.get("XDG_RUNTIME_DIR", "/tmp"), "typing")
        os.makedirs(folder, exist_ok=True)
        path = os.path.join(folder, "textarea.html")
        with open(path, "w") as out:
            out.write(TEXTAREA_PAGE)
        self.bridge = bridge
        self.process = subprocess.Popen([LAUNCH, browser, path], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                        start_new_session=True)
        deadline = time.monotonic() + 120
        while time.monotonic() < deadline:
            reply, _ = bridge.run({"version": 1, "operation": "context"})
            area = reply.get("ok") and self.textarea(reply["result"])
            if area and "Typing Page" in reply["result"]["scope"]["window"] and area["bounds"]:
                self.area = area
                return
            time.sleep(1)
        self.close()
        sys.exit(f"{browser} did not show the page")

    @staticmethod
    def textarea(observation):
        return next((n for n in observation["nodes"] if n["role"] == "AXTextArea"), None)

    def command(self, line):
        """The fixture's "notes " and "focus notes": empty the textarea and
        put the caret in it."""
        if line != "focus notes":
            return
        observation = self.bridge.observe()
        # Placed where it is now: Firefox lists the field before laying out
        # its page, so the first bounds seen may be old ones.
        b = (self.textarea(observation) or self.area)["bounds"]
        scope = observation["scope"]
        act = lambda action: self.bridge.run({"version": 1, "operation": "act", "scope": scope,
                                              "action": action})
        act({"kind": "click", "x": b["x"] + 20, "y": b["y"] + 20})
        time.sleep(0.5)
        value = notes_value(self.bridge.observe())
        if value:
            act({"kind": "type", "value": "", "replace": True, "expected_value": value})
            key = (["wtype", "-k", "BackSpace"] if os.environ.get("WAYLAND_DISPLAY")
                   else ["xdotool", "key", "BackSpace"])
            subprocess.run(key, check=True)
        settled_notes(self.bridge, "")

    def close(self):
        try:
            os.killpg(self.process.pid, signal.SIGTERM)
            self.process.wait(timeout=5)
        except (ProcessLookupError, subprocess.TimeoutExpired):
            pass
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()


def notes_value(observation):
    for node in observation["nodes"]:
        if node["name"] == "Notes" and node["role"] in ("AXTextArea", "AXTextField"):
            return node["value"]
    area = Page.textarea(observation)
    if area is not None and "Typing Page" in observation["scope"]["window"]:
        return area["value"]
    sys.exit("the fixture has no Notes editor")


def settled_notes(bridge, expected, limit=60.0):
    """The editor's value once it equals `expected` or stops changing."""
    deadline = time.monotonic() + limit
    last = None
    while True:
        value = notes_value(bridge.observe())
        if value == expected or value == last or time.monotonic() > deadline:
            return value
        last = value
        time.sleep(0.5)


def agreement(got, want):
    """How many of the wanted characters arrived, in order (the longest
    matching blocks), so that one lost character does not count every later
    one as wrong."""
    matcher = difflib.SequenceMatcher(None, got, want, autojunk=False)
    return sum(block.size for block in matcher.get_matching_blocks())


def fresh_notes(fixture):
    fixture.command("notes ")
    fixture.command("focus notes")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bridge", required=True)
    parser.add_argument("--fixture", required=True)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--clicks", type=int, default=21)
    parser.add_argument("--length", type=int, default=1000)
    parser.add_argument("--line", type=int, default=60, help="characters per line")
    parser.add_argument("--reference", choices=("xdotool", "wtype"), default="xdotool",
                        help="the typing tool to compare with: xdotool on X, wtype on Wayland")
    parser.add_argument("--browser", choices=("chromium", "firefox"),
                        help="type into a web page's textarea in this browser instead")
    args = parser.parse_args()

    text = mixed_text(args.length, args.line, seed=2024)
    distinct = len(set(text) - set(chr(c) for c in range(32, 127)) - {"\n"})
    print(f"text: {len(text)} characters, {distinct} distinct outside ASCII, lines of {args.line}")

    bridge = Bridge(args.bridge)
    fixture = Page(args.browser, bridge) if args.browser else Fixture(args.fixture)
    if args.browser:
        print(f"into a textarea in {args.browser}")

    # The bridge: one "type" request per run, into the emptied text view.
    ours, ours_right = [], 0
    for _ in range(args.runs):
        fresh_notes(fixture)
        scope = bridge.observe()["scope"]
        request = {
            "version": 1,
            "operation": "act",
            "scope": scope,
            "action": {"kind": "type", "value": text, "replace": False, "expected_value": ""},
        }
        reply, elapsed = bridge.run(request)
        if not reply.get("ok"):
            sys.exit(f"typing refused: {reply}")
        value = settled_notes(bridge, text)
        ours.append(elapsed)
        ours_right += value == text
        print(f"  bridge: {elapsed:.3f} s, {agreement(value, text)}/{len(text)} characters right")

    # The reference tool at its default settings, on the same text, the
    # same way: xdotool with its delay, or wtype, which waits for the
    # compositor and sleeps two milliseconds after each press and release.
    with tempfile.NamedTemporaryFile("w", suffix=".txt", encoding="utf-8", delete=False) as file:
        file.write(text)
    tool = args.reference
    fresh_notes(fixture)
    start = time.perf_counter()
    if tool == "wtype":
        with open(file.name, "rb") as source:
            subprocess.run(["wtype", "-"], stdin=source, check=True)
    else:
        subprocess.run(["xdotool", "type", "--file", file.name], check=True)
    reference = time.perf_counter() - start
    value = settled_notes(bridge, text)
    reference_right = agreement(value, text)
    print(f"  {tool}: {reference:.3f} s, {reference_right}/{len(text)} characters right, "
          f"{len(value)} typed, exact: {'yes' if value == text else 'no'}")

    if args.browser:
        fixture.close()
        median = statistics.median(ours)
        print(f"typing, bridge:  median {median:.3f} s of {args.runs}, "
              f"{ours_right}/{args.runs} runs 100% correct")
        print(f"typing, {tool}: {reference:.3f} s, "
              f"{100.0 * reference_right / len(text):.1f}% of characters arrived in order")
        print(f"ratio {tool} / bridge: {reference / median:.1f}x (target at least 10x)")
        return 0 if ours_right == args.runs else 1

    # One whole-process click on the Increment button.
    observation = bridge.observe()
    button = next(n for n in observation["nodes"] if n["name"] == "Increment")
    b = button["bounds"]
    click = {
        "version": 1,
        "operation": "act",
        "scope": observation["scope"],
        "action": {"kind": "click", "x": b["x"] + b["width"] / 2, "y": b["y"] + b["height"] / 2},
    }
    clicks = []
    for _ in range(args.clicks):
        reply, elapsed = bridge.run(click)
        if not reply.get("ok"):
            sys.exit(f"click refused: {reply}")
        clicks.append(elapsed)
        time.sleep(0.5)  # apart by more than the double-click time
    fixture.close()

    median = statistics.median(ours)
    print()
    print(f"typing, bridge:  median {median:.3f} s of {args.runs}, "
          f"{ours_right}/{args.runs} runs 100% correct")
    print(f"typing, {tool}: {reference:.3f} s, "
          f"{100.0 * reference_right / len(text):.1f}% of characters arrived in order, "
          f"{'100% correct' if value == text else 'not correct'}")
    print(f"ratio {tool} / bridge: {reference / median:.1f}x (target at least 10x)")
    print(f"click: median {1000 * statistics.median(clicks):.1f} ms of {args.clicks} "
          f"(min {1000 * min(clicks):.1f}, max {1000 * max(clicks):.1f})")
    return 0 if ours_right == args.runs else 1


if __name__ == "__main__":
    sys.exit(main())
