"""SVG texts: a picture of fixed size from its parts."""
from html import escape

STYLE = ('<style>rect{shape-rendering:crispEdges}text{font:14px sans-serif;fill:#222}'
         '.s{font-size:12px;fill:#555}.b{fill:#eef3f8;stroke:#456}'
         '.t{fill:#2a7f3f}.k{fill:#c9d3dc}.r{fill:#c0392b}.w{stroke:#456;fill:none}.m{text-anchor:middle}'
         '.e{text-anchor:end}.g{stroke:#ccd;fill:none}</style>')


def svg(width, height, parts):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
            f'height="{height}">\n{STYLE}\n' + '\n'.join(parts) + '\n</svg>\n')


def text(x, y, words, kind=''):
    return f'<text x="{x:g}" y="{y:g}"{f" class={kind!r}" if kind else ""}>{escape(words)}</text>'


def rect(x, y, width, height, kind):
    return f'<rect x="{x:g}" y="{y:g}" width="{width:g}" height="{height:g}" class="{kind}"/>'


def path(points, kind='w'):
    """A line through points; None lifts the pen."""
    words, pen = [], 'M'
    for point in points:
        if point is None:
            pen = 'M'
            continue
        words.append(f'{pen}{point[0]:g} {point[1]:g}')
        pen = 'L'
    return f'<path d="{"".join(words)}" class="{kind}"/>'
