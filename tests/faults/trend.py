"""Whether a curve rises: Theil-Sen's slope, and how far chance alone moves it.

Theil-Sen, the median of the slopes between all pairs, because what is measured has bursts (a client
more, a pipeline that starts again, a busy machine) that would turn a line of least squares, and that a
median ignores up to 29 % of them. Samples that follow each other are alike, so that their number says
little: they are put together in blocks, and the slope's standard error comes from drawing the blocks'
distances to the line anew, in runs of neighbours (moving block bootstrap)."""

import dataclasses
import random
import statistics

BLOCKS = 40         # at most; 780 pairs
SHORTEST = 8.0      # seconds of a block: several clients, or several switches
FEWEST = 24         # blocks; below, nothing is concluded: the heap still comes to its level
RUN = 3             # neighbours that are drawn together
DRAWS = 300
# Of some twenty curves each is judged; four standard errors keep chance from failing a whole run more
# than once in hundreds, for the few blocks that there are.
WIDTH = 4.0


@dataclasses.dataclass
class Trend:
    begin: float   # seconds, of the first block
    end: float     # of the last
    level: float   # median
    slope: float   # per second
    error: float   # standard error of the slope
    blocks: int
    offset: float  # of the line at second 0

    def growth(self):
        return self.slope * (self.end - self.begin)

    def band(self):
        """How far growth is uncertain, to either side."""
        return WIDTH * self.error * (self.end - self.begin)

    def rises(self, floor):
        return self.growth() > self.band() and self.growth() > floor


def theil_sen(times, values):
    return statistics.median((values[j] - values[i]) / (times[j] - times[i])
                             for i in range(len(times)) for j in range(i + 1, len(times)))


def in_blocks(samples, quantile):
    """Samples are (second, value), in order. Each block becomes its middle and its quantile."""
    span = samples[-1][0] - samples[0][0]
    length = max(SHORTEST, span / BLOCKS)
    blocks = {}
    for time, value in samples:
        blocks.setdefault(int((time - samples[0][0]) / length), []).append((time, value))
    fullest = max(len(block) for block in blocks.values())
    # A block that was cut short is not like the others.
    kept = [block for block in blocks.values() if len(block) * 2 >= fullest]
    times = [statistics.fmean(time for time, _ in block) for block in kept]
    return times, [sorted(v for _, v in block)[int(quantile * (len(block) - 1))] for block in kept]


def standard_error(times, residuals, chance):
    slopes = []
    for _ in range(DRAWS):
        drawn = []
        while len(drawn) < len(residuals):
            at = chance.randrange(len(residuals) - RUN + 1)
            drawn += residuals[at:at + RUN]
        slopes.append(theil_sen(times, drawn[:len(residuals)]))
    return statistics.stdev(slopes)


def trend(samples, quantile=0.5):
    """None if there are too few samples to conclude anything."""
    if len(samples) < 2:
        return None
    times, values = in_blocks(samples, quantile)
    if len(times) < FEWEST:
        return None
    slope = theil_sen(times, values)
    offset = statistics.median(value - slope * time for time, value in zip(times, values))
    residuals = [value - offset - slope * time for time, value in zip(times, values)]
    return Trend(times[0], times[-1], statistics.median(values), slope,
                 standard_error(times, residuals, random.Random(1)), len(times), offset)


def check_judgement():
    """What must not pass, and what must: curves whose trend is known."""
    chance = random.Random(2)
    noise, drift = [], 0.0
    for second in range(480):
        drift = 0.9 * drift + chance.gauss(0, 60)  # samples that are alike for some ten seconds
        noise.append((float(second), 20000 + drift + (3000 if chance.random() < 0.1 else 0)))
    leaky = [(second, value + 2 * second) for second, value in noise]
    assert not trend(noise).rises(0), "a flat curve is said to rise"
    assert trend(leaky).rises(0), "a curve that rises is said to be flat"
