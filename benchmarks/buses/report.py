"""What has been measured, as Markdown: the table, the goals, and two runs side by side."""

import json

FREE, ONE_CPU = "free", "one CPU"

COLUMNS = [
    ("acknowledged, µs", ["acknowledged.p50_us", "acknowledged.p99_us"]),
    ("acknowledged/s", ["acknowledged.per_s"]),
    ("pipelined/s", ["pipelined.per_s"]),
    ("delivered, µs", ["delivered.p50_us", "delivered.p99_us"]),
    ("last of 32, µs", ["last.p50_us", "last.p99_us"]),
    ("deliveries/s to 32", ["streamed.per_s"]),
    ("called, µs", ["called.p50_us", "called.p99_us"]),
    ("CPU of a publish, µs", ["acknowledged.cpu_us"]),
    ("of a delivery, µs", ["delivery.cpu_us"]),
]

# One subscriber all the time, and contents that change.
ATTENDED_COLUMNS = [
    ("acknowledged, µs", ["attended.share_us"]),
    ("each, µs", ["attended.p50_us", "attended.p99_us"]),
    ("CPU: server", ["attended.cpu_us"]),
    ("publisher", ["attended.publisher_cpu_us"]),
    ("subscriber", ["attended.receivers_cpu_us"]),
    ("delivered, µs", ["awaited.p50_us", "awaited.p99_us"]),
    ("CPU: server", ["awaited.cpu_us"]),
    ("publisher", ["awaited.publisher_cpu_us"]),
    ("subscriber", ["awaited.receivers_cpu_us"]),
]

# The same, counted while nobody looks at the time.
SYSTEM_CALLS = [
    ("acknowledged: server", ["attended.calls"]),
    ("publisher", ["attended.publisher_calls"]),
    ("subscriber", ["attended.receivers_calls"]),
    ("delivered: server", ["awaited.calls"]),
    ("publisher", ["awaited.publisher_calls"]),
    ("subscriber", ["awaited.receivers_calls"]),
]

IDLE = {"idle.pss_mib": "PSS, MiB", "idle.cpu_ms_per_s": "CPU, ms in a second"}

# Ratios for the three contents: the peer's time divided by ours. None: a goal of those below.
RATIOS = [
    ("QtDBus call", "dbus", "prompt-light", [None, 8, 8], [None, 3.4, 2.9]),
    ("mosquitto", "mosquitto", "prompt-light", [None, 7, 7], [None, 3, 2.5]),
    ("nats-server", "nats", "prompt-light", [None, 6, 6], [None, 3, 2.5]),
    ("QtDBus call, by Prompt + Classic", "dbus", "prompt-classic", [1, 1, 1], [0.6, 0.9, 1]),
]
# With one subscriber, on one CPU, for the smallest content: acknowledged and delivered.
ATTENDED = [("attended", "attended.share_us"), ("awaited", "awaited.p50_us")]
ATTENDED_RATIOS = [
    ("QtDBus", "dbus", [3, 1.8]),
    ("mosquitto", "mosquitto", [1.2, 1.2]),
    ("mosquitto, QDataStream", "mosquitto-stream", [1.2, 1.2]),
    ("nats-server", "nats", [1, 1]),
    ("nats-server, QDataStream", "nats-stream", [1, 1]),
]
MAX_TIMES_RELAY = [2.6, 1.9]
MAX_TIMES_RELAY_CPU = 1.7
MIN_SHARE_OF_RELAY_STREAM = 0.45
MAX_TIMES_CHANNELS = 2
# TrelanClient beside what it stands on.
MAX_TIMES_HANDLER = 1.5
MAX_TIMES_CONTROLLERS = 1.3
MAX_CPU_US = 10
MAX_PSS_MIB = 15


class Results:
    """The medians of a run by bus, processors, bytes (0 for what has none) and measure."""

    def __init__(self, run):
        self._values = {(f["bus"], f["cpus"], f["bytes"], f["measure"]): f["value"]
                        for f in run["figures"]}

    def keys(self):
        return self._values.keys()

    def get(self, bus, cpus, size, measure):
        return self._values.get((bus, cpus, size, measure))

    def has(self, bus, cpus, size):
        return any(key[:3] == (bus, cpus, size) for key in self._values)

    def ratio(self, over, under, cpus, size, measure):
        """Of two buses; None if one of them has no such figure."""
        one, other = (self.get(bus, cpus, size, measure) for bus in (over, under))
        return one / other if one is not None and other else None


def number(value):
    if value is None:
        return "–"
    if value == int(value) and abs(value) < 1000:
        return str(int(value))
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.0f}" if abs(value) >= 100 else f"{value:.1f}" if abs(value) >= 10 \
        else f"{value:.2f}"


def size_name(size):
    return f"{size // 1024} KiB" if size >= 1024 else f"{size} B"


def markdown(head, rows, left=1):
    """A table whose first columns are text."""
    lines = [head, ["---"] * left + ["---:"] * (len(head) - left)] + rows
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def table(run, columns):
    """Of the buses that have a figure for one of the columns."""
    results, rows = Results(run), []
    for cpus in run["processors"]:
        for size in run["sizes"]:
            for name, label in run["buses"].items():
                cells = [" / ".join(number(results.get(name, cpus, size, m)) for m in measures)
                         for _, measures in columns]
                cells = ["–" if set(cell) <= set("– /") else cell for cell in cells]
                if set(cells) != {"–"}:
                    rows.append([size_name(size), cpus, label] + cells)
    return markdown(["content", "CPUs", "bus"] + [column for column, _ in columns], rows, 3)


def idle_table(run):
    results = Results(run)
    rows = [[label] + [number(results.get(name, FREE, 0, measure)) for measure in IDLE]
            for name, label in run["buses"].items() if results.has(name, FREE, 0)]
    return markdown(["server with 10 idle clients", *IDLE.values()], rows)


def goal(text, cpus, size, value, wanted, at_most):
    """One line of the goals; None where nothing was measured, or is wanted."""
    if value is None or wanted is None:
        return None
    met = value <= wanted if at_most else value >= wanted
    return {"goal": text, "cpus": cpus, "bytes": size, "value": value, "wanted": wanted,
            "at_most": at_most, "met": met}


def attended_goals(results, size):
    """What is wanted of small contents with one subscriber."""
    found = []
    for (name, measure), most, column in zip(ATTENDED, MAX_TIMES_RELAY, range(2)):
        for label, peer, least in ATTENDED_RATIOS:
            found.append(goal(f"{label}, {name}: its time / ours", ONE_CPU, size, results.ratio(
                peer, "prompt-light", ONE_CPU, size, measure), least[column], False))
        found.append(goal(f"{name}: our time / raw relay", ONE_CPU, size, results.ratio(
            "prompt-light", "relay", ONE_CPU, size, measure), most, True))
    found.append(goal("attended: our server's CPU / raw relay", ONE_CPU, size, results.ratio(
        "prompt-light", "relay", ONE_CPU, size, "attended.cpu_us"), MAX_TIMES_RELAY_CPU, True))
    return [line for line in found if line]


def goals(run):
    results, found = Results(run), []

    def add(*arguments):
        line = goal(*arguments)
        if line:
            found.append(line)

    small = run["sizes"][0]
    for cpus in run["processors"]:
        for label, peer, ours, acknowledged, delivered in RATIOS:
            for measure, wanted in (("acknowledged", acknowledged), ("delivered", delivered)):
                for size, least in zip(run["sizes"], wanted):
                    add(f"{label}, {measure}: its time / ours", cpus, size,
                        results.ratio(peer, ours, cpus, size, measure + ".p50_us"), least, False)
        if cpus == ONE_CPU:
            found += attended_goals(results, small)
        add("deliveries/s to 32: ours / raw relay", cpus, small,
            results.ratio("prompt-light", "relay", cpus, small, "streamed.per_s"),
            MIN_SHARE_OF_RELAY_STREAM, False)
        for size in run["sizes"]:
            add("through two controllers / direct channels", cpus, size,
                results.ratio("controllers", "prompt-light", cpus, size, "delivered.p50_us"),
                MAX_TIMES_CHANNELS, True)
            add("TrelanClient, acknowledged: its time / handler", cpus, size,
                results.ratio("client", "prompt-light", cpus, size, "acknowledged.p50_us"),
                MAX_TIMES_HANDLER, True)
            add("TrelanClient, delivered: its time / two controllers", cpus, size,
                results.ratio("client", "controllers", cpus, size, "delivered.p50_us"),
                MAX_TIMES_CONTROLLERS, True)
            add("call and answer: QtDBus asyncCall / TrelanClient", cpus, size,
                results.ratio("dbus", "client", cpus, size, "called.p50_us"), 1, False)
        add("server CPU of a publish, µs", cpus, small,
            results.get("prompt-light", cpus, small, "acknowledged.cpu_us"), MAX_CPU_US, True)
    add("PSS with 10 idle clients, MiB", FREE, 0,
        results.get("prompt-light", FREE, 0, "idle.pss_mib"), MAX_PSS_MIB, True)
    add("idle CPU with 10 clients, ms in a second", FREE, 0,
        results.get("prompt-light", FREE, 0, "idle.cpu_ms_per_s"), 0, True)
    return found


def goals_table(run):
    """One row for each goal, with what it is for each of the contents."""
    grouped = {}
    for line in run["goals"]:
        grouped.setdefault((line["goal"], line["cpus"]), []).append(line)
    rows = []
    for (text, cpus), lines in grouped.items():
        wanted = " / ".join(number(line["wanted"]) for line in lines)
        text += "" if len(lines) == len(run["sizes"]) or lines[0]["bytes"] == 0 else \
            f" ({', '.join(size_name(line['bytes']) for line in lines)})"
        rows.append([text, cpus, " / ".join(number(line["value"]) for line in lines),
                     ("≤ " if lines[0]["at_most"] else "≥ ") + wanted,
                     " / ".join("met" if line["met"] else "**missed**" for line in lines)])
    return markdown(["goal, for " + ", ".join(size_name(size) for size in run["sizes"]), "CPUs",
                     "is", "wanted", ""], rows, 2)


def heading(run):
    return (f"Version {run['version']}, {run['date']}, {run['cpus']} CPUs ({run['architecture']}), "
            f"medians of {run['rounds']} rounds of {run['milliseconds']} ms for each figure. "
            f"Other programs took {run['others_percent']:.0f} % of the processors meanwhile.")


def whole(run):
    """Everything about a run, for docs/performance.md."""
    attended = "With one subscriber all the time, and contents that change; CPU in µs a message:"
    parts = [heading(run), table(run, COLUMNS), attended, table(run, ATTENDED_COLUMNS)]
    if any(figure["measure"] == "attended.calls" for figure in run["figures"]):
        parts += ["System calls of a message, counted by strace:", table(run, SYSTEM_CALLS)]
    return "\n\n".join(parts + [idle_table(run), goals_table(run)]) + "\n"


def kept(run):
    """The medians alone, as JSON with a line for each, for the repository."""
    head = {key: value for key, value in run.items() if key not in ("figures", "goals")}
    figures = [{key: value for key, value in figure.items() if key != "rounds"}
               for figure in run["figures"]]
    lines = ",\n  ".join(json.dumps(figure, ensure_ascii=False) for figure in figures)
    return (json.dumps(head, ensure_ascii=False, indent=1)[:-2] +
            ',\n "figures": [\n  ' + lines + "\n ]\n}\n")


def comparison(before, after):
    """Every figure that both runs have, and the second divided by the first."""
    old, new, rows = Results(before), Results(after), []
    shown = [measure for _, measures in COLUMNS + ATTENDED_COLUMNS + SYSTEM_CALLS
             for measure in measures] + list(IDLE)
    for key in new.keys():
        was, now = old.get(*key), new.get(*key)
        if was is None or now is None or key[-1] not in shown:
            continue
        bus, cpus, size, measure = key
        rows.append([bus, cpus, size_name(size) if size else "–", measure, number(was),
                     number(now), f"{now / was:.2f}" if was else "–"])
    return markdown(["bus", "CPUs", "content", "measure", "before", "after", "after / before"],
                    rows, 4)
