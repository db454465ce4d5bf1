"""Draws the curves of tests/torture/soak: a row a process, a column a quantity."""

import support

draw_ = support.load_script("docs/pictures/draw")

UNITS = {"memory": "KiB", "descriptors": "", "threads": "", "processor": "%", "latency": "ms"}
TITLES = {"memory": "memory, MiB, private and written to", "descriptors": "descriptors",
          "threads": "threads", "processor": "processor, % of one", "latency": "latency, ms"}
SCALES = {"memory": 1 / 1024}
LEFT, TOP, WIDTH, HEIGHT, GAP, ROW = 24, 92, 216, 92, 44, 168
MOST = 400  # points of a curve


def thin(samples):
    """Every so many samples become their median, which keeps the picture small."""
    step = -(-len(samples) // MOST)
    groups = [samples[i:i + step] for i in range(0, len(samples), step)]
    return [(group[len(group) // 2][0], sorted(value for _, value, *_ in group)[len(group) // 2])
            for group in groups]


def panel(picture, x, y, title, samples, found, warm, end):
    points = thin(samples)
    scale = SCALES.get(title.split(",")[0], 1)
    # A burst must not flatten the rest of the curve.
    top = sorted(value for _, value in points)[int(0.99 * (len(points) - 1))] * scale * 1.25 or 1

    def at(time, value):
        return f"{x + WIDTH * time / end:.1f} {y + HEIGHT * (1 - min(1, value * scale / top)):.1f}"

    picture.box(x, y, WIDTH * warm / end, HEIGHT, draw_.PALE, "none", 0)
    picture.path("M" + "L".join(at(*point) for point in points), draw_.BLUE, 0.9)
    if found:
        line = [at(t, max(0, found.offset + found.slope * t)) for t in (found.begin, found.end)]
        picture.path("M" + "L".join(line), draw_.ORANGE, 2)
    picture.path(f"M{x} {y}V{y + HEIGHT}H{x + WIDTH}", draw_.LINE, 1)
    picture.text(x - 4, y + 9, f"{top:.3g}", 10, draw_.SOFT, "end")
    picture.text(x - 4, y + HEIGHT, "0", 10, draw_.SOFT, "end")
    picture.text(x, y - 6, title, 11, draw_.SOFT, "start")
    picture.text(x + WIDTH, y + HEIGHT + 13, f"{end:.0f} s", 10, draw_.SOFT, "end")


def draw(processes, trends, warm, machine):
    """`processes`: name to what its latency is, and its curves of (second, value, loaded)."""
    names = list(UNITS)
    width = LEFT + len(names) * (WIDTH + GAP) + 10
    picture = draw_.Picture(width, TOP + ROW * len(processes) - 10, "What grows in a long run")
    picture.text(LEFT, 32, "What grows in a long run", 17, bold=True, anchor="start")
    picture.text(LEFT, 52, f"Blue: samples, orange: the trend under load, grey: warm-up. {machine}.",
                 12, draw_.SOFT, "start")
    end = max(samples[-1][0] for _, curves in processes.values() for samples in curves.values()
              if samples)
    for row, (name, (latency, curves)) in enumerate(processes.items()):
        y = TOP + ROW * row
        picture.text(LEFT, y, name, 13, bold=True, anchor="start")
        picture.text(LEFT + 110, y, f"latency: {latency}", 11, draw_.SOFT, "start")
        for column, quantity in enumerate(names):
            if curves[quantity]:
                panel(picture, LEFT + 30 + column * (WIDTH + GAP), y + 26, TITLES[quantity],
                      curves[quantity], trends[name].get(quantity), warm, end)
    return picture.svg()
