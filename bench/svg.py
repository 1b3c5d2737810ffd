"""Bar charts as SVG, written by hand."""

from xml.sax.saxutils import escape

COLOURS = ("#9aa5b1", "#4c78a8", "#e07b39", "#72a36a", "#b56576", "#6d597a")

WIDTH = 860
LEFT = 170  # where the bars begin
RIGHT = 90  # room for the number behind the longest bar
BAR = 13
GAP = 10


def bar_chart(title, unit, series, panels):
    """Horizontal bars.

    series  the names of the bars in each group, in order
    panels  a list of (heading, groups); groups is a list of (label, values), with None for a bar that is
            missing. Each panel has a scale of its own.
    """
    parts = []
    y = 28

    def text(x, baseline, words, size=12, weight="normal", anchor="start"):
        parts.append('<text x="{}" y="{}" font-size="{}" font-weight="{}" text-anchor="{}">{}</text>'.format(
            x, baseline, size, weight, anchor, escape(words)))

    def box(x, top, width, height, colour):
        parts.append('<rect x="{}" y="{}" width="{:.1f}" height="{}" fill="{}"/>'.format(
            x, top, width, height, colour))

    text(16, y, title, 15, "bold")
    y += 14
    x = 16
    for name, colour in zip(series, COLOURS):
        box(x, y, 11, 11, colour)
        text(x + 16, y + 10, name)
        x += 34 + 7 * len(name)
    y += 26
    for heading, groups in panels:
        numbers = [value for _, values in groups for value in values if value is not None]
        if not numbers:
            continue
        scale = (WIDTH - LEFT - RIGHT) / max(max(numbers), 1e-9)
        text(16, y + 12, heading, 13, "bold")
        text(WIDTH - 16, y + 12, unit, 11, anchor="end")
        y += 22
        for label, values in groups:
            text(LEFT - 10, y + BAR * len(values) / 2 + 4, label, anchor="end")
            for value, colour in zip(values, COLOURS):
                if value is not None:
                    width = max(value * scale, 0)
                    box(LEFT, y, width, BAR - 2, colour)
                    text(LEFT + width + 5, y + BAR - 3, "{:.3g}".format(value), 10)
                y += BAR
            y += GAP
        y += 8
    return (
        '<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {0} {1}" width="{0}" height="{1}"'
        ' font-family="sans-serif" fill="#222">\n<rect width="{0}" height="{1}" fill="#fff"/>\n{2}\n</svg>\n'
    ).format(WIDTH, y, "\n".join(parts))
