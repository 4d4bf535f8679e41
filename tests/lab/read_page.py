"""Reads a page with the parser of the Python library and counts what it shows. Elements that do not nest and
everything that a browser would fetch end it with status 1."""
import sys
from html.parser import HTMLParser

VOID = {"meta", "input", "br"}
FETCHING = {"src", "href", "srcset", "action", "data", "poster"}


class Page(HTMLParser):
    def __init__(self):
        super().__init__()
        self.open = []
        self.runs = self.memories = self.levels = 0
        self.in_runs = False

    def handle_starttag(self, tag, attrs):
        attrs = dict(attrs)
        if tag in VOID:
            return
        if FETCHING & attrs.keys() or tag in ("link", "iframe", "img"):
            sys.exit(f"{tag} fetches: {attrs}")
        self.open.append(tag)
        self.in_runs |= attrs.get("id") == "runs"
        self.runs += tag == "tr" and self.in_runs
        self.memories += tag == "figure"
        self.levels += tag == "rect" and attrs.get("rx") == "3"

    def handle_endtag(self, tag):
        if not self.open or self.open.pop() != tag:
            sys.exit(f"</{tag}> at {self.getpos()} does not nest")

    def handle_data(self, data):
        if self.open[-1:] == ["style"] and ("url(" in data or "@import" in data):
            sys.exit("the style fetches")


page = Page()
page.feed(open(sys.argv[1], encoding="utf-8").read())
page.close()
if page.open:
    sys.exit(f"not closed: {page.open}")
print(f"{page.runs} runs, {page.memories} memories, {page.levels} levels")
