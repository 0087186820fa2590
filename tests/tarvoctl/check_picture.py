#!/usr/bin/env python3
"""Checks a picture of `tarvoctl map --svg`, and prints its texts, a line each.

It must be XML; no text may leave the page, or cover another one or a line that leads to one; boxes
of a row must not cover each other.
"""
import sys
import unicodedata
import xml.etree.ElementTree as xml

SVG = "{http://www.w3.org/2000/svg}"
SIZE = 12
# Of a fixed font; some are a little wider than 0.6.
LETTER = 0.61 * SIZE


def columns(text):
    return sum(2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in text)


def number(element, name):
    return float(element.get(name))


def box_of_text(element):
    x, y = number(element, "x"), number(element, "y")
    return (x, y - SIZE * 0.8, x + columns(element.text) * LETTER, y + SIZE * 0.2, element.text)


def meets(a, b):
    return a[0] < b[2] and b[0] < a[2] and a[1] < b[3] and b[1] < a[3]


def complaints(root):
    width, height = number(root, "width"), number(root, "height")
    texts = [box_of_text(e) for e in root.iter(SVG + "text") if e.get("class") != "number"]
    lines = [
        (number(e, "x1"), number(e, "y1"), number(e, "x2"), number(e, "y2"), "a line")
        for e in root.iter(SVG + "line")
    ]
    marks = [
        (number(e, "x"), number(e, "y"), number(e, "x") + 14, number(e, "y") + 14, "a mark")
        for e in root.iter(SVG + "rect")
        if e.get("class") == "mark"
    ]
    for one in texts + marks:
        if one[0] < 0 or one[1] < 0 or one[2] > width or one[3] > height:
            yield f"{one} leaves the page"
    for i, one in enumerate(texts):
        for other in texts[i + 1 :] + lines + marks:
            if meets(one, other):
                yield f"{one} meets {other}"
    if not texts:
        yield "no text at all"


def main():
    root = xml.parse(sys.argv[1]).getroot()
    wrong = list(complaints(root))
    for complaint in wrong:
        print(complaint, file=sys.stderr)
    for element in root.iter(SVG + "text"):
        if element.get("class") != "number":
            print(element.text)
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
