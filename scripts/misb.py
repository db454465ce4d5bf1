"""Sets of MISB ST 0601 for scripts/judge: reads them, and compares them with the telemetry of a
recording. It shares no code and no table with media-station."""

import bisect
import json
import math

UNIVERSAL_KEY = bytes.fromhex("060e2b34020b01010e01030101000000")
CHECKSUM, TIMESTAMP = 1, 2
# Items that telemetry fills, by tag: key, bytes, and what the lowest and the highest number mean.
# Where these are opposite numbers, the lowest of two's complement means "out of range".
SCALED = {
    5: ("yaw_deg", 2, 0, 360), 6: ("pitch_deg", 2, -20, 20), 7: ("roll_deg", 2, -50, 50),
    13: ("sensor_lat_deg", 4, -90, 90), 14: ("sensor_lon_deg", 4, -180, 180),
    15: ("sensor_alt_m", 2, -900, 19000), 16: ("hfov_deg", 2, 0, 180), 17: ("vfov_deg", 2, 0, 180),
    18: ("pan_deg", 4, 0, 360), 19: ("tilt_deg", 4, -180, 180),
    21: ("measured_slant_range_m", 4, 0, 5e6), 23: ("frame_center_lat_deg", 4, -90, 90),
    24: ("frame_center_lon_deg", 4, -180, 180), 25: ("frame_center_elev_m", 2, -900, 19000),
    40: ("target_lrf_lat_deg", 4, -90, 90), 41: ("target_lrf_lon_deg", 4, -180, 180),
    42: ("target_lrf_elev_m", 2, -900, 19000), 51: ("velocity_down_mps", 2, 180, -180),
    79: ("velocity_north_mps", 2, -327, 327), 80: ("velocity_east_mps", 2, -327, 327),
    90: ("pitch_deg", 4, -90, 90), 91: ("roll_deg", 4, -90, 90),
}
RATES = {117: "azimuth_rate_dps", 118: "elevation_rate_dps", 119: "roll_rate_dps"}
RATE_STEP = 2000 / 2**11 / 2**12  # MISB ST 1201: 2048 for 2000, in 23 bits
WHOLE = {62: ("laser_prf_code", 2), 123: ("nav_sat_count", 1),
         124: ("positioning_method_source", 1), 125: ("platform_status", 1)}
LASER, SENSOR_NAME = 47, 11
# What follows from the rest or comes from options: mission, platform, sensor, coordinates, width,
# security, version, corners, core identifier.
OTHERS = {CHECKSUM, TIMESTAMP, 3, 10, SENSOR_NAME, 12, 22, 48, 65, *range(82, 90), 94}
ANGLES = {"yaw_deg", "pan_deg", "tilt_deg", "roll_deg", "sensor_lon_deg", "frame_center_lon_deg",
          "target_lrf_lon_deg"}
ATTITUDE = ("yaw_deg", "pitch_deg", "roll_deg", "pan_deg", "tilt_deg")
CLOCK = 2e-6  # seconds by which a frame's time may differ from that of its line
EARTH_RADIUS, EARTH_FLATTENING = 6378137.0, 1 / 298.257223563


class KlvError(Exception):
    pass


def ber_length(data, at):
    """The length at `at`, and the offset of the value."""
    first = data[at]
    if first < 0x80:
        return first, at + 1
    count = first & 0x7F
    if count == 0 or at + 1 + count > len(data):
        raise KlvError("bad length")
    return int.from_bytes(data[at + 1 : at + 1 + count], "big"), at + 1 + count


def parse(packet):
    """The items of one local set by tag, after a check of length and checksum."""
    if packet[:16] != UNIVERSAL_KEY:
        raise KlvError("wrong universal key")
    length, at = ber_length(packet, 16)
    if at + length != len(packet):
        raise KlvError(f"{len(packet) - at} bytes instead of {length}")
    items = {}
    while at < len(packet):
        tag = packet[at]
        size, at = ber_length(packet, at + 1)
        if at + size > len(packet):
            raise KlvError(f"tag {tag} reaches past the end")
        items[tag] = packet[at : at + size]
        at += size
    if tag != CHECKSUM or len(items[CHECKSUM]) != 2:
        raise KlvError("no checksum at the end")
    summed = packet[:-2]
    total = sum(byte << (8 if i % 2 == 0 else 0) for i, byte in enumerate(summed)) & 0xFFFF
    if total != int.from_bytes(items[CHECKSUM], "big"):
        raise KlvError("wrong checksum")
    return items


def scaled(tag, content):
    """The value of a scaled item and the size of its steps; None for out of range."""
    name, size, low, high = SCALED[tag]
    if len(content) != size:
        raise KlvError(f"{name} has {len(content)} bytes")
    number = int.from_bytes(content, "big", signed=low == -high)
    if low != -high:
        step = (high - low) / (2 ** (8 * size) - 1)
        return low + number * step, step
    step = high / (2 ** (8 * size - 1) - 1)
    return (None if number == -(2 ** (8 * size - 1)) else number * step), abs(step)


def values_of(items):
    """What telemetry may say, by key: value and the size of its steps, 0 for what is exact."""
    values = {}
    for tag, content in items.items():
        if tag in SCALED:
            name = SCALED[tag][0]
            if name in values:
                raise KlvError(f"{name} twice")
            values[name] = scaled(tag, content)
        elif tag in RATES:
            if len(content) != 3:
                raise KlvError(f"{RATES[tag]} has {len(content)} bytes")
            number = int.from_bytes(content, "big")
            values[RATES[tag]] = (None if number >> 23 else number / 2**12 - 1000, RATE_STEP)
        elif tag in WHOLE:
            name, size = WHOLE[tag]
            if len(content) != size:
                raise KlvError(f"{name} has {len(content)} bytes")
            values[name] = (int.from_bytes(content, "big"), 0)
        elif tag == LASER:
            values["laser_range_enabled"] = (content[0] & 1 == 1, 0)
        elif tag == SENSOR_NAME:
            values["camera_name"] = (content.decode(), 0)  # or an option's
        elif tag not in OTHERS:
            raise KlvError(f"item {tag} is not known")
    return values


def position(values, kind, height):
    """Geocentric coordinates, in metres; None if they are not known."""
    known = [values.get(name, (None, 0))[0] for name in (kind + "_lat_deg", kind + "_lon_deg", height)]
    if None in known:
        return None
    latitude, longitude, height = math.radians(known[0]), math.radians(known[1]), known[2]
    squared = EARTH_FLATTENING * (2 - EARTH_FLATTENING)
    normal = EARTH_RADIUS / math.sqrt(1 - squared * math.sin(latitude) ** 2)
    return ((normal + height) * math.cos(latitude) * math.cos(longitude),
            (normal + height) * math.cos(latitude) * math.sin(longitude),
            (normal * (1 - squared) + height) * math.sin(latitude))


def line_of_sight(degrees):
    """The direction in which a sensor looks: north, east, down."""
    yaw, pitch, roll, pan, tilt = (
        (math.cos(math.radians(degrees[name])), math.sin(math.radians(degrees[name])))
        for name in ATTITUDE)
    x, y, z = tilt[0] * pan[0], tilt[0] * pan[1], -tilt[1]  # forward, right, down
    y, z = roll[0] * y - roll[1] * z, roll[1] * y + roll[0] * z
    x, z = pitch[0] * x + pitch[1] * z, pitch[0] * z - pitch[1] * x
    return yaw[0] * x - yaw[1] * y, yaw[1] * x + yaw[0] * y, z


def check_geometry(values):
    """The line of sight of an invented flight goes to the frame centre, at the slant range."""
    known = {name: value for name, (value, _) in values.items()}
    sensor = position(values, "sensor", "sensor_alt_m")
    centre = position(values, "frame_center", "frame_center_elev_m")
    if not sensor or not centre or None in map(known.get, (*ATTITUDE, "measured_slant_range_m")):
        raise KlvError("no geometry")
    x, y, z = (c - s for c, s in zip(centre, sensor))
    latitude, longitude = math.radians(known["sensor_lat_deg"]), math.radians(known["sensor_lon_deg"])
    outwards = math.cos(longitude) * x + math.sin(longitude) * y  # from the axis of the earth
    way = (math.cos(latitude) * z - math.sin(latitude) * outwards,
           math.cos(longitude) * y - math.sin(longitude) * x,
           -math.sin(latitude) * z - math.cos(latitude) * outwards)
    written = known["measured_slant_range_m"]
    missed = math.dist([written * part for part in line_of_sight(known)], way)
    if missed > 1:
        raise KlvError(f"line of sight and slant range miss the frame centre by {missed:.1f} m")


class Telemetry:
    """JSON lines with times in seconds, replayed from the first frame on; no lines for none."""

    def __init__(self, path, timeout=2):
        self.timeout = timeout
        self.tracks = {}  # times and values by key
        lines = [json.loads(line) for line in open(path, encoding="utf-8")] if path else []
        begin = min((line["time"] for line in lines), default=0)
        for line in sorted(lines, key=lambda line: line["time"]):
            for name, value in line.items():
                times, values = self.tracks.setdefault(name, ([], []))
                times.append(line["time"] - begin)
                values.append(value)

    def at(self, name, seconds):
        """Lowest and highest value that is right at a time; None if there is none."""
        times, values = self.tracks.get(name, ([], []))
        i = bisect.bisect_right(times, seconds + CLOCK) - 1
        if i < 0 or values[i] is None:
            return None
        goes_on = i + 1 < len(times) and times[i + 1] - times[i] <= self.timeout
        if goes_on and name in RANGES and values[i + 1] is not None:
            way, span = values[i + 1] - values[i], times[i + 1] - times[i]
            if name in ANGLES:
                way = (way + 180) % 360 - 180
            # The way over the ground leaves that over the map.
            margin = 0.01 * way**2 if "_lat_" in name or "_lon_" in name else 0
            ends = [values[i] + way * min(1, max(0, (seconds - times[i] + error) / span))
                    for error in (-CLOCK, CLOCK)]
            return min(ends) - margin, max(ends) + margin
        return (values[i], values[i]) if seconds - times[i] <= self.timeout else None

    def compare(self, values, seconds):
        """Raises KlvError for a value that is not the telemetry's, is missing, or is invented."""
        for name in {*values, *self.tracks} & KEYS:
            right = self.at(name, seconds)
            value, step = values.get(name, (None, 0))
            if value is None:  # unknown, or more than the item can say
                if right is not None and all(fits(name, end) for end in right):
                    raise KlvError(f"{name} is missing at {seconds:.3f} s")
            elif right is None and name != "camera_name":
                raise KlvError(f"{name} is invented at {seconds:.3f} s: {value}")
            elif isinstance(value, str):
                if right is not None and value != right[0]:
                    raise KlvError(f"{name} is {value} at {seconds:.3f} s, not {right[0]}")
            else:
                middle, reach = (right[0] + right[1]) / 2, (right[1] - right[0]) / 2
                away = value - middle
                if name in ANGLES:
                    away = (away + 180) % 360 - 180
                if abs(away) > reach + step:
                    raise KlvError(f"{name} is {value} at {seconds:.3f} s, not {middle}")


RANGES = {name: (min(low, high), max(low, high)) for name, _, low, high in SCALED.values()}
RANGES.update({name: (-1000, 1000) for name in RATES.values()})
KEYS = {*RANGES, *(name for name, _ in WHOLE.values()), "laser_range_enabled", "camera_name"}


def fits(name, value):
    low, high = RANGES.get(name, (1, 12))  # in every whole number's range
    return isinstance(value, (str, bool)) or name in ("yaw_deg", "pan_deg") or low <= value <= high
