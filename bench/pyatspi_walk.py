"""The reference for the bridge's "context": a breadth-first walk of the
active window with Debian's pyatspi, reading what a scan reads of every
element (role, name, description, states, extents, the text of text roles
and paragraphs, children) up to 1200 elements, and keeping the children the
bridge keeps: those SHOWING, or in GTK 4, those VISIBLE with a non-empty
extent. Prints the number of elements read."""
import sys

import pyatspi

LIMIT = 1200
TEXT_ROLES = {pyatspi.ROLE_TEXT, pyatspi.ROLE_ENTRY, pyatspi.ROLE_TERMINAL,
              pyatspi.ROLE_PARAGRAPH, pyatspi.ROLE_DOCUMENT_TEXT}


def active_window():
    for app in pyatspi.Registry.getDesktop(0):
        if app is None:
            continue
        for window in app:
            if window is not None and window.getState().contains(pyatspi.STATE_ACTIVE):
                return app, window
    return None, None


def extents(element):
    try:
        return element.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
    except NotImplementedError:
        return None


def shown(child, gtk4):
    states = child.getState()
    if not gtk4:
        return states.contains(pyatspi.STATE_SHOWING)
    if not states.contains(pyatspi.STATE_VISIBLE):
        return False
    box = extents(child)
    return box is None or (box.width > 0 and box.height > 0)


def walk(root, gtk4):
    queue = [root]
    i = 0
    while i < len(queue) and i < LIMIT:
        element = queue[i]
        role = element.getRole()
        element.name
        element.description
        element.getState()
        extents(element)
        if role in TEXT_ROLES:
            try:
                element.queryText().getText(0, -1)
            except NotImplementedError:
                pass
        if len(queue) < LIMIT:
            for child in element:
                if len(queue) >= LIMIT:
                    break
                if child is not None and shown(child, gtk4):
                    queue.append(child)
        i += 1
    return i


def main():
    app, window = active_window()
    if window is None:
        print("no active window", file=sys.stderr)
        return 1
    gtk4 = (app.get_toolkit_name().lower() == "gtk"
            and app.get_toolkit_version().startswith("4."))
    print(walk(window, gtk4))
    return 0


if __name__ == "__main__":
    sys.exit(main())
