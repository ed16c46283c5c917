"""Draws how long each candidate takes for each message as an SVG: a line of dots a message, on a
logarithmic scale, with a copy of the same bytes at 1. For report.py."""
import html
import math

COLOURS = {"ours": "#c2185b", "protobuf": "#1f6fb2", "protobuf, arena": "#7fb3dd",
           "nanopb": "#2e8b57", "Cap'n Proto": "#e08a00", "msgpack-c": "#6a4fa3",
           "msgpack-c, forced": "#b3a5d1"}
LEFT, RIGHT, TOP, LINE, BOTTOM, WIDTH = 250, 30, 78, 24, 40, 920


def text(x, y, content, anchor="start", size=13, weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" '
            f'font-weight="{weight}">{html.escape(content)}</text>')


def dot(x, y, name):
    radius = 6 if name == "ours" else 4.5
    return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{radius}" fill="{COLOURS[name]}"/>'


def legend(messages):
    drawn = {name for row in messages.values() for name in row}
    parts, x = [], 130
    for name in filter(drawn.__contains__, COLOURS):
        parts += [dot(x, 48, name), text(x + 9, 52, name, size=12)]
        x += 30 + 6.8 * len(name)
    return parts


def draw(title, messages):
    """Returns the SVG of {message: {candidate: times as long as the copy}}."""
    values = [value for row in messages.values() for value in row.values() if value > 0]
    low = math.floor(math.log10(min([1, *values])))
    high = math.ceil(math.log10(max(values)))
    height = TOP + LINE * len(messages) + BOTTOM

    def position(value):
        return LEFT + (math.log10(value) - low) / (high - low) * (WIDTH - LEFT - RIGHT)

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
             f'viewBox="0 0 {WIDTH} {height}" font-family="sans-serif" fill="#222">',
             f'<rect width="{WIDTH}" height="{height}" fill="#fff"/>',
             text(12, 26, title, size=16, weight="bold"), *legend(messages)]
    for power in range(low, high + 1):
        x = position(10 ** power)
        parts.append(f'<line x1="{x:.1f}" y1="{TOP - 12}" x2="{x:.1f}" y2="{height - BOTTOM}" '
                     f'stroke="{"#888" if power == 0 else "#ddd"}"/>')
        parts.append(text(x, height - BOTTOM + 18, "memcpy" if power == 0 else f"{10 ** power:g} ×",
                          "middle", 12))
    for index, (message, row) in enumerate(messages.items()):
        y = TOP + LINE * (index + 0.5)
        parts.append(text(LEFT - 12, y + 4, message, "end"))
        dots = sorted(row.items(), key=lambda entry: entry[0] == "ours")  # ours on top
        parts += [dot(position(value), y, name) for name, value in dots if value > 0]
    return "\n".join([*parts, "</svg>", ""])
