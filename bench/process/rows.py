"""The rows of the table, and the measures that they need."""

import dataclasses
import statistics

COMPLETE, CLASSIC = "complete", "classic"


@dataclasses.dataclass(frozen=True)
class Row:
    """Figures that belong together, as "<measure>.<figure>". `limit` has figures of measures of LIMITS."""
    label: str
    unit: str
    figures: tuple
    aim: str = ""
    limit: tuple = ()


def percentiles(measure, *names):
    return tuple(f"{measure}.{name}" for name in names or ("p50", "p99", "p999"))


ROWS = (
    Row("a call, 10,000 in a row: p50 / p99 / p99.9", "µs", percentiles("calls"), "0.9 / 3 / 20", percentiles("queue")),
    Row("the same under `classic`, which makes a log line for each call", "µs", percentiles("classic calls"), "", percentiles("queue")),
    Row("a call, one a millisecond, the journal in memory: p50 / p99", "µs", percentiles("paced", "p50", "p99"), "4 / 20",
        percentiles("paced queue", "p50", "p99")),
    Row("the same with the journal on a disk", "µs", percentiles("paced on disk", "p50", "p99"), "4 / 40",
        percentiles("paced queue", "p50", "p99")),
    Row("the same in the foreground, with a chunk a second", "µs", percentiles("foreground", "p50", "p99"), "",
        percentiles("paced queue", "p50", "p99")),
    Row("CPU time for 1,000 events: burst / one a millisecond / the same with a chunk a second", "s",
        ("durable.cpu", "paced.cpu", "foreground.cpu"), "0.015 / 0.045", ("queue.cpu", "paced queue.cpu")),
    Row("calls of 1,000 that are kept, if a `kill -9` follows at once / after 50 ms", "", ("kill.calls", "kill after 50 ms.calls"),
        "1,000 / 1,000"),
    Row("the same under `classic`", "", ("classic kill.calls", "classic kill after 50 ms.calls")),
    Row("events made durable a second, of 50,000; limit: one row a transaction / grouped rows", "", ("durable.rate",), "90,000",
        ("one row.rate", "grouped rows.rate")),
    Row("the same under `classic`", "", ("classic durable.rate",), "", ("one row.rate", "grouped rows.rate")),
    Row("from the last call of 1,000 until all are durable", "ms", ("burst.milliseconds",), "50"),
    Row("log lines that a burst writes to a reader that keeps up / lines made", "", ("log lines.written", "log lines.made"), "all"),
    Row("10,000 stored events read, built, posted, accepted: light service / collector", "ms",
        ("chunk.milliseconds", "chunk to collector.milliseconds"), "60"),
    Row("private memory written at the peak of the 50,000: `complete` / `classic`", "MB", ("peak.peak", "classic peak.peak"),
        "15"),
    Row("private memory of an idle process: written / with its libraries, if nobody else uses them", "MB", ("idle.written", "idle.whole"),
        "4"),
    Row("threads / voluntary switches in 10 idle seconds", "", ("idle.threads", "idle.switches"), "5 / 2"),
    Row("start of the process to `main`: shared / static", "ms", ("shared.milliseconds", "static.milliseconds"), "2 ms, shared",
        ("bare.milliseconds",)),
    Row("start of the process to the first chunk accepted: `complete` / `classic`", "ms",
        ("first chunk.milliseconds", "classic first chunk.milliseconds"), "300"),
    Row("text and data of a static host", "kB", ("size.kilobytes",), "700"),
)

# Each is measured once a round, for each build.
MEASURES = {
    "calls": lambda build: build.host("calls", COMPLETE),
    "classic calls": lambda build: build.host("calls", CLASSIC),
    "paced": lambda build: build.host("paced", COMPLETE),
    "paced on disk": lambda build: build.paced_on_disk(COMPLETE),
    "foreground": lambda build: build.foreground(COMPLETE),
    "kill": lambda build: build.kept("kill", COMPLETE),
    "kill after 50 ms": lambda build: build.kept("kill-50", COMPLETE),
    "classic kill": lambda build: build.kept("kill", CLASSIC),
    "classic kill after 50 ms": lambda build: build.kept("kill-50", CLASSIC),
    "durable": lambda build: build.host("durable", COMPLETE),
    "classic durable": lambda build: build.host("durable", CLASSIC),
    "burst": lambda build: build.host("burst", COMPLETE),
    "log lines": lambda build: build.log_lines(COMPLETE),
    "chunk": lambda build: build.host("chunk", COMPLETE),
    "chunk to collector": lambda build: build.chunk_to_collector(COMPLETE),
    "peak": lambda build: build.peak(COMPLETE),
    "classic peak": lambda build: build.peak(CLASSIC),
    "idle": lambda build: build.idle(COMPLETE),
    "shared": lambda build: build.until_main("minimal-shared"),
    "static": lambda build: build.until_main("minimal-static"),
    "first chunk": lambda build: build.first_chunk(COMPLETE),
    "classic first chunk": lambda build: build.first_chunk(CLASSIC),
    "size": lambda build: build.static_size(),
}
# The same, once a round: they do not depend on the library.
LIMITS = {
    "queue": lambda build: build.limit("queue"),
    "paced queue": lambda build: build.limit("paced-queue"),
    "one row": lambda build: build.limit("one-row"),
    "grouped rows": lambda build: build.limit("grouped-rows"),
    "bare": lambda build: build.until_main("bare"),
}


def short(number):
    """Returns the number with two or three digits that mean something."""
    if number >= 100 or number == int(number):
        return f"{number:,.0f}"
    return f"{number:.1f}" if number >= 10 else f"{number:.2f}" if number >= 0.1 else f"{number:.4f}"


def cell(figures, values, unit, of):
    """Returns `of` (a function) of each figure's values, separated by slashes."""
    return " / ".join(of(values[figure]) for figure in figures) + (f" {unit}" if unit else "") if figures else ""


def median(values):
    return short(statistics.median(values))


def spread(values):
    return short(min(values)) if min(values) == max(values) else f"{short(min(values))} to {short(max(values))}"


def difference(row, ours, theirs):
    def one(figure):
        before, now = statistics.median(theirs[figure]), statistics.median(ours[figure])
        return f"{(now / before - 1) * 100:+.0f} %" if before else "new" if now else "0 %"
    return " / ".join(map(one, row.figures))


def markdown(values, limits):
    """Yields the lines of the table. `values`: for each build, by its name, a dictionary from a figure to its values."""
    names = list(values)
    if len(names) == 1:
        yield "| Figure | Median | Smallest to largest | Limit, without the library | Aim |"
        yield "|---|---|---|---|---|"
        only = values[names[0]]
        for row in ROWS:
            aim = f"{row.aim} {row.unit}" if row.aim and row.unit and row.aim[-1].isdigit() else row.aim
            yield (f"| {row.label} | {cell(row.figures, only, row.unit, median)} | {cell(row.figures, only, row.unit, spread)} "
                   f"| {cell(row.limit, limits, row.unit, median)} | {aim} |")
        return
    yield f"| Figure | {names[0]} | {names[1]} | Difference |"
    yield "|---|---|---|---|"
    for row in ROWS:
        columns = [f"{cell(row.figures, values[name], row.unit, median)} ({cell(row.figures, values[name], '', spread)})" for name in names]
        yield f"| {row.label} | {' | '.join(columns)} | {difference(row, *values.values())} |"


def document(values, limits):
    """Returns the same as a value for JSON."""
    def summary(all_values):
        return {"median": statistics.median(all_values), "smallest": min(all_values), "largest": max(all_values), "values": all_values}
    return {"figures": [{"label": row.label, "unit": row.unit, "aim": row.aim,
                         "builds": {name: {figure: summary(of[figure]) for figure in row.figures} for name, of in values.items()},
                         "limits": {figure: summary(limits[figure]) for figure in row.limit}} for row in ROWS]}
