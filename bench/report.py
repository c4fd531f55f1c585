#!/usr/bin/env python3
"""Makes a report of what scripts/bench has measured: tables in Markdown, and a picture.

Use: bench/report.py RESULTS [DOCUMENT]

RESULTS is the directory with the results. The report is printed, and the picture stands in RESULTS;
with a DOCUMENT, a Markdown file, the report replaces what stands there between the lines
"<!-- results -->" and "<!-- end of results -->", and the picture stands beside it.
"""
import json
import operator
import os
import platform
import re
import statistics
import subprocess
import sys
from pathlib import Path
from xml.sax.saxutils import escape

SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}
MS = 1e3
US = 1e6
NS = 1e9

# In the order of their columns. Floors are no competitors; the last one that is there counts.
FLOORS = ["decoder", "decoder+resampler", "read", "bare"]
CONTENDERS = ["tovrel", "tovrel-eq", "mpv", "ffplay", "gstreamer", "pw-cat"] + FLOORS
TITLES = {"tovrel-eq": "tovrel, ten bands on"}

# The runs, which have the names of their files, and what is said of the cycles in them.
CHAIN = "tovrel_bench"
DECODE = "tovrel_decode_bench"
SINK = "tovrel_sink_bench"
PEERS = "tovrel_peer_equalizers"
LATENCY = "tovrel_latency_bench"
LATENCY_256 = "tovrel_latency_bench-256"
STEADY = "tovrel_steady_bench"
STEADY_1024 = "tovrel_steady_bench-1024"
LATENCY_RUNS = {LATENCY: "own", LATENCY_256: "256"}
STEADY_RUNS = {STEADY: "own", STEADY_1024: "1024"}

DEFAULT_CYCLE_MS = 1024 / 48
FORMATS = ("wav", "flac", "mp3", "opus")


# --- The results ----------------------------------------------------------------------------------


class Case:
    """One line of a benchmark: its repetitions, without those that the machine has spoilt."""

    def __init__(self):
        self.kept = []
        self.left_out = 0  # the listener has missed a part, so the figures may be wrong
        self.error = None

    def add(self, repetition):
        """Takes in a repetition as the benchmark's output has it."""
        if repetition.get("error_occurred"):
            self.error = repetition["error_message"]
        elif repetition.get("holes", 0) != 0:
            self.left_out += 1
        else:
            # Where nothing else is said, a case computes: what others took is not its time.
            clock = "real_time" if "/manual_time" in repetition["name"] else "cpu_time"
            repetition["time"] = repetition[clock] * SECONDS[repetition["time_unit"]]
            self.kept.append(repetition)

    def values(self, key="time"):
        """The times in seconds, or a counter's values."""
        return [repetition[key] for repetition in self.kept if key in repetition]

    def median(self, key="time"):
        """Their median, None where there are none."""
        values = self.values(key)
        return statistics.median(values) if values else None

    def worst(self, key="time"):
        """The greatest of them, None where there are none."""
        return max(self.values(key), default=None)

    def cell(self, factor, key="time"):
        """The median and the spread, or why there is none."""
        values = [value * factor for value in self.values(key)]
        if not values:
            if self.error is None:
                return "–"
            return "not installed" if self.error.endswith("not installed") else "failed"
        median, least, most = map(number, (statistics.median(values), min(values), max(values)))
        return median if least == most else f"{median} ({least}–{most})"


class Results:
    """The cases of all runs, by the run and the name; a case that is not there is an empty one."""

    def __init__(self, directory):
        self.runs = {}
        self.date = ""
        for path in sorted(directory.glob("*.json")):
            output = json.loads(path.read_text())
            self.date = max(self.date, output["context"]["date"])
            cases = self.runs[path.stem] = {}
            # They stand in the random order in which they have run.
            order = operator.itemgetter("family_index", "per_family_instance_index")
            for repetition in sorted(output["benchmarks"], key=order):
                if repetition["run_type"] == "iteration":
                    cases.setdefault(case_name(repetition["name"]), Case()).add(repetition)

    def case(self, run, name):
        """One case of a run."""
        return self.runs.get(run, {}).get(name, Case())

    def names(self, run, prefix):
        """What follows the prefix in the names of the run's cases."""
        return [name.removeprefix(prefix) for name in self.runs.get(run, {})
                if name.startswith(prefix)]

    def failures(self):
        """Cases that have failed otherwise than for want of a contender: (run, name, error)."""
        return [(run, name, case.error) for run, cases in self.runs.items()
                for name, case in cases.items()
                if case.error and not case.error.endswith("not installed")]

    def repetitions(self):
        """How many there are of each case, in words."""
        return ", ".join(f"`{run}` {max(len(case.kept) + case.left_out for case in cases.values())}"
                         for run, cases in self.runs.items() if cases)


def case_name(name):
    """The name without what the library adds, and the player's variants as contenders."""
    name = re.sub(r"/(iterations:|manual_time).*", "", name)
    name = name.replace("/tovrel-play", "/tovrel")
    return re.sub(r"-eq/tovrel$", "/tovrel-eq", name)


def quotient(a, b):
    """a / b, None where one is missing."""
    return None if a is None or not b else a / b


def difference(a, b):
    """a - b, None where one is missing."""
    return None if a is None or b is None else a - b


def number(value):
    """Three digits that matter, as far as they stand behind the point."""
    if value is None:
        return "–"
    size = abs(value)
    if size < 0.0005:
        return "0"
    if float(value).is_integer():
        return f"{value:.0f}"
    return f"{value:.{0 if size >= 100 else 1 if size >= 10 else 2 if size >= 1 else 3}f}"


def table(header, rows):
    """A Markdown table whose columns but the first are numbers."""
    lines = [header, ["---"] + ["---:"] * (len(header) - 1)] + rows
    return "\n".join("| " + " | ".join(line) + " |" for line in lines) + "\n"


def section(title, *parts):
    """The parts that are there under a heading; nothing where none is."""
    parts = [part for part in parts if part]
    return f"### {title}\n\n" + "\n".join(parts) if parts else ""


# --- Tables of contenders -------------------------------------------------------------------------


def things_and_contenders(results, runs, case):
    """What is done in the cases CASE/WHAT/CONTENDER, and by whom, both in their order."""
    pairs = [name.split("/") for run in runs for name in results.names(run, case + "/")]
    found = {contender for _, contender in pairs}
    return (list(dict.fromkeys(what for what, _ in pairs)),
            [contender for contender in CONTENDERS if contender in found])


def best_other(results, run, what, key="time"):
    """The least median of those that are neither the player nor a floor."""
    medians = [results.case(run, f"{what}/{contender}").median(key)
               for contender in CONTENDERS
               if contender not in FLOORS and not contender.startswith("tovrel")]
    return min((median for median in medians if median is not None), default=None)


def comparison(results, runs, case, factor=1.0, key="time", extras=(), has_ratios=True):
    """A row for each thing, in each run, and a column for each contender; then the ratios, and
    extras, which are (heading, function of a dictionary of the row's cases)."""
    whats, contenders = things_and_contenders(results, runs, case)
    if not whats:
        return ""
    players = [name for name in contenders if name.startswith("tovrel")]
    floors = [name for name in contenders if name in FLOORS]
    has_others = has_ratios and len(players) + len(floors) < len(contenders)
    has_floors = has_ratios and floors
    rows_cases = {(what, run): {name: results.case(run, f"{case}/{what}/{name}")
                                for name in contenders}
                  for what in whats for run in runs if results.names(run, f"{case}/{what}/")}
    has_left_out = any(entry.left_out for cases in rows_cases.values() for entry in cases.values())
    header = [case] + ["cycles"] * (len(runs) > 1)
    header += [TITLES.get(name, name) for name in contenders]
    header += [f"{TITLES.get(name, name)} / best other" for name in players if has_others]
    header += [f"tovrel / {floors[-1]}"] if has_floors else []
    header += [heading for heading, _ in extras] + ["left out"] * has_left_out
    rows = []
    for (what, run), cases in rows_cases.items():
        row = [what] + [runs[run]] * (len(runs) > 1)
        row += [entry.cell(factor, key) for entry in cases.values()]
        if has_others:
            other = best_other(results, run, f"{case}/{what}", key)
            row += [number(quotient(cases[name].median(key), other)) for name in players]
        if has_floors:
            row.append(number(quotient(cases["tovrel"].median(key), cases[floors[-1]].median(key))))
        row += [function(cases) for _, function in extras]
        row += [str(sum(entry.left_out for entry in cases.values()))] * has_left_out
        rows.append(row)
    return table(header, rows)


def counter_column(heading, contender, key, summary=Case.median):
    """An extra column: a counter of one contender's."""
    return (heading, lambda cases: number(summary(cases[contender], key)))


def latency_tables(results):
    """From a call to what is heard."""
    worst = [counter_column(f"worst, {name}", name, "worst_ms", Case.worst)
             for name in ("tovrel", "mpv")]
    silence = [counter_column(f"longest silence, {name}", name, "silence_ms", Case.worst)
               for name in ("tovrel", "mpv")]
    bare = [counter_column("bare: until it is taken in", "bare", "open_ms"),
            counter_column("until it is asked for sound", "bare", "first_call_ms"),
            counter_column("closing it", "bare", "close_ms")]
    extras = {"Seek": worst + silence, "Pause": worst, "Resume": worst, "ShortSounds": bare}
    whats = ["FirstSound", "ProcessStart", "Radio", "Seek", "Stop", "Pause", "Resume",
             "ShortSounds"]
    return section("From a call to what is heard, in milliseconds",
                   *(comparison(results, LATENCY_RUNS, what, MS, extras=extras.get(what, ()))
                     for what in whats))


def steady_tables(results):
    """What a played minute costs."""
    runs = {STEADY: STEADY_RUNS[STEADY]}
    memory = [counter_column("the file", "tovrel", "file_mib"),
              ("tovrel, beyond the file", lambda cases: number(beyond_file(cases["tovrel"])))]
    return "\n".join((
        section("Processor time of a played minute, in milliseconds",
                comparison(results, STEADY_RUNS, "Steady", MS)),
        section("Context switches in a played minute",
                comparison(results, STEADY_RUNS, "Steady", key="switches")),
        section("Threads", comparison(results, runs, "Steady", key="threads", has_ratios=False)),
        section("Private memory, in MiB",
                comparison(results, runs, "Steady", key="private_mib", extras=memory,
                           has_ratios=False)),
        section("Resident memory at its peak, libraries included, in MiB",
                comparison(results, runs, "Steady", key="peak_mib", has_ratios=False))))


def beyond_file(case):
    """Private memory less the file that is played, in MiB."""
    return difference(case.median("private_mib"), case.median("file_mib"))


def allocation_table(results):
    """Allocations of a playing player by who makes them."""
    keys = {"the engine": "new_per_s", "FFmpeg": "ffmpeg_per_s", "the data thread": "data_per_s",
            "blocks": "blocks_per_s"}
    rows = []
    for what in results.names(STEADY, "Allocations/"):
        case = results.case(STEADY, "Allocations/" + what)
        rows.append([what.split("/")[0]] + [case.cell(1.0, key) for key in keys.values()])
    return section("Allocations in a second of steady playback",
                   table(["Allocations"] + list(keys), rows) if rows else "")


def decode_tables(results):
    """From a file's bytes to a sink that has played everything at once."""
    runs = {DECODE: ""}
    return "\n".join((
        section("A second of sound at full speed, in microseconds",
                comparison(results, runs, "Decode", US)),
        section("From a file's name to its first block, and to all of its bytes, in milliseconds",
                comparison(results, runs, "FirstPush", MS),
                comparison(results, runs, "Preload", MS))))


# --- Tables of blocks -----------------------------------------------------------------------------

EQUALIZERS = {"plain loop": "EqualizerPlain", "SSE2": "EqualizerForm/sse2",
              "AVX2": "EqualizerForm/avx2", "the engine": "Equalizer"}
CHAIN_PARTS = {"copy": "Floor", "equalizer off": "EqualizerBypass", "one band": "EqualizerOneBand",
               "a band moves": "EqualizerMoving", "gain and pan": "GainAndPan",
               "spectrum": "Spectrum", "the whole chain": "Chain"}


def frame_case(results, part, block):
    """A case of the chain, and what turns its time into nanoseconds a frame."""
    frames = int(re.search(r"frames:(\d+)", block)[1])
    return results.case(CHAIN, f"{part}/{block}"), NS / frames


def frame_ns(results, part, block="frames:1024/channels:2"):
    """The median of what one frame takes, in nanoseconds."""
    case, factor = frame_case(results, part, block)
    return None if case.median() is None else case.median() * factor


def chain_table(results, parts, ratios):
    """A row for each kind of block, a column for each part; ratios are pairs of parts."""
    names = {part: name for name, part in parts.items()}
    rows = []
    for block in results.names(CHAIN, parts[next(reversed(parts))] + "/"):
        row = re.findall(r"\d+", block)
        for part in parts.values():
            case, factor = frame_case(results, part, block)
            row.append(case.cell(factor))
        row += [number(quotient(frame_ns(results, a, block), frame_ns(results, b, block)))
                for a, b in ratios]
        rows.append(row)
    header = ["Frames", "channels"] + list(parts) + [f"{names[a]} / {names[b]}" for a, b in ratios]
    return table(header, rows) if rows else ""


def peer_equalizer_table(results):
    """The equalizers of others, for blocks of 1024 stereo frames or about as many."""
    rows = []
    for peer in results.names(PEERS, "PeerEqualizer/"):
        case = results.case(PEERS, f"PeerEqualizer/{peer}")
        rows.append([peer, case.cell(NS),
                     number(quotient(case.median(), equalizer_seconds(results)))])
    header = ["Ten bands of", "ns a frame", "times what the engine takes"]
    return table(header, rows) if rows else ""


def equalizer_seconds(results):
    """What the engine's ten bands take for one stereo frame."""
    return quotient(frame_ns(results, "Equalizer"), NS)


def chain_tables(results):
    """The processing chain, block by block."""
    plain, engine = EQUALIZERS["plain loop"], EQUALIZERS["the engine"]
    forms = [(EQUALIZERS[form], plain) for form in ("SSE2", "AVX2")] + [(engine, plain)]
    return "\n".join((
        section("Ten bands of the equalizer, in nanoseconds a frame",
                chain_table(results, EQUALIZERS, forms), peer_equalizer_table(results)),
        section("The rest of the chain, in nanoseconds a frame",
                chain_table(results, CHAIN_PARTS, [("Chain", "Floor")]))))


def sink_tables(results):
    """The sink's queue and its mutex."""
    rows = []
    for block in results.names(SINK, "PushAlone/"):
        push, copy = results.case(SINK, "PushAlone/" + block), results.case(SINK, "Floor/" + block)
        rows.append([block.replace("frames:", ""), push.cell(NS), copy.cell(NS),
                     number(quotient(push.median(), copy.median()))])
    pushes = table(["Frames", "a push", "copying them", "push / copy"], rows) if rows else ""

    columns = {"median": ("p50", Case.median), "99.9 %": ("p99.9", Case.median),
               "longest": ("max", Case.worst), "longest, not switched off": ("max_own", Case.worst),
               "longest wait": ("wait_max", Case.worst)}
    rows = []
    for name in results.names(SINK, ""):
        case = results.case(SINK, name)
        quantum = re.search(r"quantum:(\d+)", name)
        for side, holder in (("push", "the pusher"), ("call", "the callback")):
            if case.values(side + "_p50"):
                rows.append([quantum[1], case.kept[0]["label"], holder] if quantum else
                            ["–", "–", "nobody: two looks at the clock"])
                rows[-1] += [number(summary(case, f"{side}_{key}"))
                             for key, summary in columns.values()]
    holds = table(["Cycles of", "threads", "held by"] + list(columns), rows) if rows else ""
    return "\n".join((
        section("Blocks pushed into the sink's queue, in nanoseconds a block", pushes),
        section("How long the sink's mutex is held while blocks are pushed without a rest, in "
                "microseconds", holds)))


# --- Goals ----------------------------------------------------------------------------------------


def goal(what, relation, limit, figures, unit=""):
    """A row: whether all the figures, (label, value) each, stand in the relation to the limit."""
    holds = {"≤": operator.le, "<": operator.lt, "≥": operator.ge}[relation]
    answers = [None if value is None else holds(value, limit) for _, value in figures]
    reached = "**no**" if False in answers else "not measured" if None in answers else "yes"
    text = ", ".join(f"{label} {number(value)}".strip() for label, value in figures)
    return [what, f"{relation} {limit:.3g}{unit}", text, reached]


def figures_of(figure, whats=FORMATS):
    """A figure for each format, or for each of others."""
    return [(what, figure(what)) for what in whats]


def worst_ms(case):
    """The worst of all turns, in milliseconds."""
    return max([ms * MS for ms in case.values()] + case.values("worst_ms"), default=None)


def start_goals(results):
    """How soon a sound begins."""
    def median(name, run=LATENCY):
        return results.case(run, name).median()

    def against_mpv(what):
        return quotient(median(what + "/tovrel"), median(what + "/mpv"))

    def beyond_bare(what):
        return quotient(difference(median(what + "/tovrel"), median(what + "/bare")), 1 / MS)

    def against_peer(peer):  # where it does best
        ratios = [quotient(median(start(what) + "/tovrel"), median(f"{start(what)}/{peer}"))
                  for what in FORMATS]
        return None if None in ratios else max(ratios)

    first, start = "FirstSound/{}".format, "ProcessStart/{}".format
    def of_reading(what):
        return quotient(median(what + "/tovrel", DECODE), median(what + "/read", DECODE))

    return [
        goal("First sound of a resident player / mpv's", "≤", 1,
             figures_of(lambda what: against_mpv(first(what)))),
        goal("First sound, beyond a bare stream's", "≤", 10,
             figures_of(lambda what: beyond_bare(first(what))), " ms"),
        goal("First sound from process start, beyond a bare stream's", "≤", 10,
             figures_of(lambda what: beyond_bare(start(what))), " ms"),
        goal("First sound from process start / that of others, the worst format", "<", 1,
             figures_of(against_peer, ["mpv", "ffplay", "gstreamer", "pw-cat"])),
        goal("First sound of a radio that sends 64 KiB at once / mpv's", "≤", 1,
             figures_of(lambda what: against_mpv("Radio/" + what),
                        ["mp3", "mp3-midframe", "aac", "opus"])),
        goal("First block of a file of 512 MiB / reading the file", "≤", 2,
             [("", of_reading("FirstPush/wav-512MiB"))]),
    ]


def control_goals(results):
    """How soon a call shows."""
    limit = DEFAULT_CYCLE_MS + 10
    actions = ("Seek", "Stop", "Pause")
    goals = []
    for action in actions:
        goals.append(goal(f"{action}: the worst, cycles of 1024 frames", "≤", limit, figures_of(
            lambda what: worst_ms(results.case(LATENCY, f"{action}/{what}/tovrel"))), " ms"))
    # The tone itself is near zero for a few frames, and so is a codec's first millisecond.
    goals.append(goal("Seek: the longest silence between old and new sound", "≤", 1, figures_of(
        lambda what: results.case(LATENCY, f"Seek/{what}/tovrel").worst("silence_ms")), " ms"))
    for action in actions:
        goals.append(goal(f"{action} / mpv's, cycles of 256 frames", "<", 1, figures_of(
            lambda what: quotient(results.case(LATENCY_256, f"{action}/{what}/tovrel").median(),
                                  results.case(LATENCY_256, f"{action}/{what}/mpv").median()))))
    return goals


def cost_goals(results):
    """What playing takes."""
    def against(peer):
        return [(f"{cycles} cycles",
                 quotient(results.case(run, "Steady/flac-48kHz/tovrel-eq").median(),
                          results.case(run, f"Steady/flac-48kHz/{peer}").median()))
                for run, cycles in STEADY_RUNS.items()]

    formats, _ = things_and_contenders(results, [STEADY], "Steady")
    allocating = [name.split("/")[0] for name in results.names(STEADY, "Allocations/")]
    played = "Processor time of FLAC with ten bands on / {} without"
    return [
        goal(played.format("mpv's"), "≤", 0.5, against("mpv")),
        goal(played.format("GStreamer's"), "<", 1, against("gstreamer")),
        goal(played.format("pw-cat's"), "≤", 1.4, against("pw-cat")),
        goal("Private memory beyond the file", "≤", 15, figures_of(
            lambda what: beyond_file(results.case(STEADY, f"Steady/{what}/tovrel")),
            formats or ["any"]), " MiB"),
        goal("Allocations by the engine in a second of playback", "≤", 0, figures_of(
            lambda what: results.case(STEADY, f"Allocations/{what}/tovrel").worst("new_per_s"),
            allocating or ["any"])),
    ]


def equalizer_goals(results):
    """How the equalizer does beside its definition and those of others."""
    def of_plain(form):
        return [("", quotient(frame_ns(results, EQUALIZERS[form]),
                              frame_ns(results, EQUALIZERS["plain loop"])))]

    peers = figures_of(lambda peer: quotient(
        results.case(PEERS, f"PeerEqualizer/{peer}").median(), equalizer_seconds(results)),
        ["ffmpeg", "gstreamer", "pipewire"])
    return [
        goal("Ten bands with SSE2 / the plain loop, 1024 stereo frames", "≤", 0.3,
             of_plain("SSE2")),
        goal("Ten bands with AVX2 / the plain loop", "≤", 0.2, of_plain("AVX2")),
        goal("Ten bands of others / the engine's", "≥", 3, peers),
    ]


def goals_table(results):
    """What is to be reached, and whether it is."""
    rows = (equalizer_goals(results) + start_goals(results) + control_goals(results) +
            cost_goals(results))
    return section("Goals", table(["Goal", "limit", "figures", "reached"], rows))


# --- The picture ----------------------------------------------------------------------------------

PICTURE_CASE = "flac-48kHz"
PICTURE_BARS = {"tovrel": "tovrel, equalizer off", "pw-cat": "pw-cat", "gstreamer": "GStreamer",
                "mpv": "mpv", "ffplay": "ffplay", "bare": "a tone, no file"}
COLOURS = ["#4e79a7", "#76b7b2", "#f28e2b", "#edc948", "#59a14f", "#af7aa1", "#e15759", "#9c755f"]
OTHERS_COLOUR = "#bab0ac"


def time_parts(results):
    """What takes the processor in a second of FLAC with ten bands on: (label, microseconds)."""
    def decoding(contender):
        return (results.case(DECODE, f"Decode/{PICTURE_CASE}/{contender}").median() or 0) * US

    def computing(part):
        return ((frame_ns(results, part) or 0) - (frame_ns(results, "Floor") or 0)) * 48000 / 1e3

    def thread(key):
        case = results.case(STEADY, f"Steady/{PICTURE_CASE}/tovrel-eq")
        return (case.median(key) or 0) * 1e3 / 60

    alone = {
        "decoding": decoding("decoder"),
        "converting to the output's format": decoding("decoder+resampler") - decoding("decoder"),
        "equalizer": computing("Equalizer"),
        "gain and pan": computing("GainAndPan"),
        "spectrum": computing("Spectrum"),
    }
    rest = thread("worker_ms") - sum(alone.values())
    parts = list(alone.items()) + [
        ("the rest of the worker: waking, looking at the queue, pushing", rest),
        ("PipeWire's data thread with the process callback", thread("data_ms")),
        ("the rest of the process", thread("rest_ms"))]
    return [(label, max(0.0, us)) for label, us in parts]


def svg_text(x, y, text, size=13, anchor="start"):
    """A line of text."""
    return (f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" text-anchor="{anchor}" '
            f'fill="#222">{escape(text)}</text>')


def svg_bar(x, y, width, height, colour):
    """A piece of a bar."""
    return (f'<rect x="{x:.1f}" y="{y}" width="{width:.1f}" height="{height}" '
            f'fill="{colour}"/>')


def picture(results):
    """Where the time of one played second goes, as an SVG; empty where that was not measured."""
    parts = time_parts(results)
    total = sum(us for _, us in parts)
    own = results.case(STEADY, f"Steady/{PICTURE_CASE}/tovrel-eq")
    if own.median() is None:
        return ""
    bars = []
    for name, label in PICTURE_BARS.items():
        median = results.case(STEADY, f"Steady/{PICTURE_CASE}/{name}").median()
        if median is not None:
            bars.append((label, median * US / 60))
    left, width, height = 190, 560, 24
    scale = width / max([total] + [us for _, us in bars])
    y = 54
    shapes = [svg_text(20, 30, "Processor time of one played second of FLAC (48 kHz, stereo), in "
                               "microseconds", 16)]
    shapes.append(svg_text(left - 10, y + 17, "tovrel, ten bands on", anchor="end"))
    x = left
    for (_, us), colour in zip(parts, COLOURS):
        shapes.append(svg_bar(x, y, us * scale, height, colour))
        x += us * scale
    shapes.append(svg_text(x + 8, y + 17, f"{total:.0f}"))
    for label, us in bars:
        y += height + 8
        shapes.append(svg_text(left - 10, y + 17, label, anchor="end"))
        shapes.append(svg_bar(left, y, us * scale, height, OTHERS_COLOUR))
        shapes.append(svg_text(left + us * scale + 8, y + 17, f"{us:.0f}"))
    y += height + 20
    for (label, us), colour in zip(parts, COLOURS):
        shapes.append(svg_bar(left, y, 14, 14, colour))
        shapes.append(svg_text(left + 62, y + 12, f"{us:.0f}", anchor="end"))
        shapes.append(svg_text(left + 72, y + 12, label))
        y += 22
    frame = f'width="820" height="{y + 8}"'
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" {frame} '
                      f'viewBox="0 0 820 {y + 8}" font-family="sans-serif">',
                      f'<rect {frame} fill="white"/>'] + shapes + ["</svg>", ""])


# --- The report -----------------------------------------------------------------------------------


def output_of(*command):
    """What a command says, nothing where it is not there."""
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout
    except FileNotFoundError:
        return ""


def version_of(*command):
    """The first version in what a command says; one in a program's name is none."""
    found = re.search(r"(?<![-\w])\d+\.\d+[.\d]*", output_of(*command))
    return found[0] if found else "not installed"


def machine(results):
    """When, where and with what it was measured."""
    model = re.search(r"Model name:\s*(.*)", output_of("lscpu"))
    compiler = output_of("c++", "--version")
    versions = [f"{name} {version_of(*command)}" for name, command in (
        ("Clang" if "clang" in compiler else "GCC", ("c++", "--version")),
        ("FFmpeg", ("ffmpeg", "-version")), ("PipeWire", ("pipewire", "--version")),
        ("WirePlumber", ("wireplumber", "--version")), ("mpv", ("mpv", "--version")),
        ("GStreamer", ("gst-launch-1.0", "--version")))]
    return ", ".join([results.date[:10], model[1] if model else platform.machine(),
                      f"{os.cpu_count()} processors", f"Linux {platform.release()}"] +
                     versions) + ".\n"


def own_cycles(results):
    """What the contenders ask for where nobody tells them."""
    quanta = {name: results.case(LATENCY, f"ProcessStart/flac/{name}").median("quantum")
              for name in CONTENDERS}
    text = ", ".join(f"{name} {frames:.0f}" for name, frames in quanta.items() if frames)
    return f"Frames in a cycle that each asks for by itself: {text}.\n" if text else ""


def report(results):
    """All of it."""
    failures = [f"- `{run}`: {name}: {error}\n" for run, name, error in results.failures()]
    parts = [
        machine(results),
        "Each figure is a median, with the least and the greatest in brackets. Repetitions: " +
        results.repetitions() + ".\n",
        own_cycles(results),
        goals_table(results), latency_tables(results), steady_tables(results),
        allocation_table(results), chain_tables(results), decode_tables(results),
        sink_tables(results), section("Failed", "".join(failures))]
    return re.sub(r"\n{3,}", "\n\n", "\n".join(parts)).strip()


def replace_results(document, text):
    """Puts the report between the marks of a document."""
    old = document.read_text()
    new, count = re.subn(r"(<!-- results -->\n).*(<!-- end of results -->)",
                         lambda marks: f"{marks[1]}\n{text}\n\n{marks[2]}", old, flags=re.DOTALL)
    if count != 1:
        sys.exit(f"report.py: {document} has no place for the results")
    document.write_text(new)


def main():
    """Reads the results, writes the report and the picture."""
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    directory = Path(sys.argv[1])
    results = Results(directory)
    if not results.runs:
        sys.exit(f"report.py: no results in {directory}")
    if len(sys.argv) == 3:
        document = Path(sys.argv[2])
        replace_results(document, report(results))
        image = document.with_suffix(".svg")
    else:
        print(report(results))
        image = directory / "performance.svg"
    if drawn := picture(results):
        image.write_text(drawn)


if __name__ == "__main__":
    main()
