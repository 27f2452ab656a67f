"""Draws payload rate against baud for us, for the peer and for the protocol's limit, from script/bench's figures."""
import math
import re

WIDTH, HEIGHT, LEFT, TOP, RIGHT, BOTTOM = 720, 420, 80, 50, 30, 60
BYTES_ON_LINE = 1029 + 1  # of a block of 1024, and its answer
COLOURS = {"limit": "#888888", "peripheral loader": "#0b6e4f", "lrzsz sx -k": "#c0561a"}


def limit(baud):
    """Payload bytes per second."""
    return baud / 10 * 1024 / BYTES_ON_LINE


def series(bench):
    """Name -> [(baud, payload bytes per second)]."""
    points = {name: [] for name in COLOURS}
    for row in bench["rows"]:
        match = re.fullmatch(r"(\d+) baud: (share of the limit|the peer's share)", row["case"])
        if match:
            baud = int(match[1])
            name = "lrzsz sx -k" if "peer" in match[2] else "peripheral loader"
            points[name].append((baud, row["median"] * limit(baud)))
            if name == "peripheral loader":
                points["limit"].append((baud, limit(baud)))
    return points


def svg(bench):
    points = series(bench)
    bauds = sorted(baud for baud, _ in points["limit"])
    if not bauds:
        raise SystemExit("plot: the figures hold no transfers over a paced line (script/bench --only line)")
    low, high = math.log10(bauds[0]) - 0.1, math.log10(bauds[-1]) + 0.1
    rates = [rate for line in points.values() for _, rate in line]
    bottom, top = math.log10(min(rates)) - 0.15, math.log10(max(rates)) + 0.15

    def x(baud):
        return LEFT + (math.log10(baud) - low) / (high - low) * (WIDTH - LEFT - RIGHT)

    def y(rate):
        return HEIGHT - BOTTOM - (math.log10(rate) - bottom) / (top - bottom) * (HEIGHT - TOP - BOTTOM)

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" font-size="13">',
           f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
           f'<text x="{WIDTH / 2}" y="22" text-anchor="middle" font-size="15">Payload rate over a paced line</text>']
    for baud in bauds:
        out += [f'<line x1="{x(baud):.1f}" y1="{TOP}" x2="{x(baud):.1f}" y2="{HEIGHT - BOTTOM}" stroke="#dddddd"/>',
                f'<text x="{x(baud):.1f}" y="{HEIGHT - BOTTOM + 18}" text-anchor="middle">{baud}</text>']
    for rate in (10 ** power * step for power in range(3, 8) for step in (1, 2, 5)):
        if bottom <= math.log10(rate) <= top:
            out += [f'<line x1="{LEFT}" y1="{y(rate):.1f}" x2="{WIDTH - RIGHT}" y2="{y(rate):.1f}" stroke="#dddddd"/>',
                    f'<text x="{LEFT - 6}" y="{y(rate) + 4:.1f}" text-anchor="end">{rate // 1000} kB/s</text>']
    out.append(f'<text x="{WIDTH / 2}" y="{HEIGHT - 12}" text-anchor="middle">baud</text>')
    for place, (name, line) in enumerate(points.items()):
        path = " ".join(f"{x(baud):.1f},{y(rate):.1f}" for baud, rate in sorted(line))
        # The limit is drawn broad, behind the others, which lie on it.
        width = 8 if name == "limit" else 2
        out += [f'<polyline points="{path}" fill="none" stroke="{COLOURS[name]}" stroke-width="{width}" '
                f'stroke-opacity="{0.35 if name == "limit" else 1}"/>',
                f'<text x="{LEFT + 14}" y="{TOP + 20 + 18 * place}" fill="{COLOURS[name]}">{name}</text>']
        if name != "limit":
            out += [f'<circle cx="{x(baud):.1f}" cy="{y(rate):.1f}" r="4" fill="{COLOURS[name]}"/>' for baud, rate in line]
    return "\n".join([*out, "</svg>"]) + "\n"
