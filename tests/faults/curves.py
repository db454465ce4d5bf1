"""Draws the curves of tests/faults/soak: a row a process, a column a quantity."""

import support

pictures = support.load_script("docs/pictures/draw")

UNITS = {"memory": " KiB", "descriptors": "", "threads": "", "frames": "",
         "processor": " %", "latency": " ms"}
TITLES = {"memory": "memory, MiB, anonymous", "descriptors": "descriptors",
          "threads": "threads", "frames": "frames of the pool",
          "processor": "processor, % of one", "latency": "latency, ms"}
LEFT, TOP, WIDTH, HEIGHT, GAP, ROW = 24, 92, 176, 92, 44, 168
MOST = 400  # points of a curve


def thin(samples):
    """Every so many samples become their median, which keeps the picture small."""
    step = -(-len(samples) // MOST)
    groups = [samples[i:i + step] for i in range(0, len(samples), step)]
    return [(group[len(group) // 2][0], sorted(value for _, value, *_ in group)[len(group) // 2])
            for group in groups]


def number(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.3g}"


def panel(picture, x, y, quantity, samples, found, warm, end):
    points = thin(samples)
    # A burst must not flatten the rest of the curve.
    top = sorted(value for _, value in points)[int(0.99 * (len(points) - 1))] * 1.25 or 1
    low, scale = 0, 1
    if quantity == "memory":  # its growth would not be seen beside all of it
        low, scale = 0.9 * min([value for time, value in points if time > warm] or [0]), 1 / 1024
        top /= 1.15

    def at(time, value):
        part = min(1, max(0, (value - low) / (top - low)))
        return f"{x + WIDTH * time / end:.1f} {y + HEIGHT * (1 - part):.1f}"

    picture.box(x, y, WIDTH * min(1, warm / end), HEIGHT, pictures.PALE, "none", 0)
    picture.path("M" + "L".join(at(*point) for point in points), pictures.BLUE, 0.9)
    if found:
        line = [at(t, found.offset + found.slope * t) for t in (found.begin, found.end)]
        picture.path("M" + "L".join(line), pictures.ORANGE, 2)
    picture.path(f"M{x} {y}V{y + HEIGHT}H{x + WIDTH}", pictures.LINE, 1)
    picture.text(x - 4, y + 9, number(top * scale), 10, pictures.SOFT, "end")
    picture.text(x - 4, y + HEIGHT, number(low * scale), 10, pictures.SOFT, "end")
    picture.text(x, y - 6, TITLES[quantity], 11, pictures.SOFT, "start")
    picture.text(x + WIDTH, y + HEIGHT + 13, f"{end:.0f} s", 10, pictures.SOFT, "end")


def draw(processes, trends, warm, machine):
    """`processes`: name to what its latency is, and its curves of (second, value, loaded)."""
    names = list(UNITS)
    width = LEFT + len(names) * (WIDTH + GAP) + 10
    picture = pictures.Picture(width, TOP + ROW * len(processes) - 10, "What grows in a long run")
    picture.text(LEFT, 32, "What grows in a long run", 17, bold=True, anchor="start")
    picture.text(LEFT, 52, f"Blue: samples, orange: the trend under load, grey: warm-up. {machine}.",
                 12, pictures.SOFT, "start")
    end = max(samples[-1][0] for _, curves in processes.values() for samples in curves.values()
              if samples)
    for row, (name, (latency, curves)) in enumerate(processes.items()):
        y = TOP + ROW * row
        picture.text(LEFT, y, name, 13, bold=True, anchor="start")
        picture.text(LEFT + 130, y, f"latency: {latency}", 11, pictures.SOFT, "start")
        for column, quantity in enumerate(names):
            if curves[quantity]:
                panel(picture, LEFT + 30 + column * (WIDTH + GAP), y + 26, quantity,
                      curves[quantity], trends[name].get(quantity), warm, end)
    return picture.svg()
