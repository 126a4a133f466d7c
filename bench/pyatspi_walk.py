"""The reference for the bridge's "context": a breadth-first walk of the
active window with Debian's pyatspi, reading what a scan reads of every
element (role, name, description, states, extents, the text of text roles,
children) up to 1200 elements. Prints the number of elements read."""
import sys

import pyatspi

LIMIT = 1200
TEXT_ROLES = {pyatspi.ROLE_TEXT, pyatspi.ROLE_ENTRY, pyatspi.ROLE_TERMINAL}


def active_window():
    for app in pyatspi.Registry.getDesktop(0):
        if app is None:
            continue
        for window in app:
            if window is not None and window.getState().contains(pyatspi.STATE_ACTIVE):
                return window
    return None


def walk(root):
    queue = [root]
    i = 0
    while i < len(queue) and i < LIMIT:
        element = queue[i]
        role = element.getRole()
        element.name
        element.description
        element.getState()
        try:
            element.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
        except NotImplementedError:
            pass
        if role in TEXT_ROLES:
            try:
                element.queryText().getText(0, -1)
            except NotImplementedError:
                pass
        if len(queue) < LIMIT:
            for child in element:
                if len(queue) >= LIMIT:
                    break
                queue.append(child)
        i += 1
    return i


def main():
    window = active_window()
    if window is None:
        print("no active window", file=sys.stderr)
        return 1
    print(walk(window))
    return 0


if __name__ == "__main__":
    sys.exit(main())
