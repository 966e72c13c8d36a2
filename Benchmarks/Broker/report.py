"""What the comparison found: one table per question, build/bench/results.json and results.svg."""

import json
import os
import platform
import statistics
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

from contenders import BUILD, BY_NAME, OURS, program

OUR_COLOUR, OTHER_COLOUR = 0x2A6FBB, 0x9AA5B1


@dataclass(frozen=True)
class Sample:
    """What one round gave one contender. `cost` is processor time of the serving side, µs/operation."""

    value: float
    p99: float = None
    cost: float = None


@dataclass(frozen=True)
class Ratio:
    """A goal: the median over the rounds of one row's figure divided by another's."""

    to: str
    at_most: float = None
    at_least: float = None
    of_row: str = OURS
    of: str = "value"

    def judge(self, rows):
        measured = ratio(rows[self.of_row], rows[self.to], self.of)
        met = measured <= self.at_most if self.at_least is None else measured >= self.at_least
        what = "processor time per operation, " if self.of == "cost" else ""
        bound = f"≤ {self.at_most:g}" if self.at_least is None else f"≥ {self.at_least:g}"
        return {"goal": f"{what}{self.of_row} {bound} × {self.to}", "measured": round(measured, 3),
                "met": met}


@dataclass(frozen=True)
class Growth:
    """A goal: the median over the rounds of how much one row is of another, divided by the same of two others."""

    of: tuple  # labels
    than: tuple
    at_most: float

    def judge(self, rows):
        def growths(labels):
            few, many = (rows[label] for label in labels)
            return [more.value / less.value for less, more in zip(few, many)]

        measured = statistics.median(a / b for a, b in zip(growths(self.of), growths(self.than)))
        (few, many), (floor_few, floor_many) = self.of, self.than
        return {"goal": f"{many} ÷ {few} ≤ {self.at_most:g} × {floor_many} ÷ {floor_few}",
                "measured": round(measured, 3), "met": measured <= self.at_most}


@dataclass(frozen=True)
class Limit:
    """A goal: a figure that stays below a bound."""

    what: str
    measured: float
    bound: float

    def judge(self, _rows):
        return {"goal": f"{self.what} ≤ {self.bound:,.4g}", "measured": round(self.measured, 3),
                "met": self.measured <= self.bound}


@dataclass(frozen=True)
class Question:
    title: str
    unit: str
    rows: dict  # label → samples, one per round
    goals: list = ()

    def summary(self):
        return {
            "title": self.title,
            "unit": self.unit,
            "rows": [self.row(label, samples) for label, samples in self.rows.items()],
            "goals": [goal.judge(self.rows) for goal in self.goals or ()],
        }

    def row(self, label, samples):
        row = {"label": label, "median": middle(samples, "value"), "p99": middle(samples, "p99"),
               "processor_time": middle(samples, "cost"),
               "rounds": [sample.value for sample in samples]}
        if OURS in self.rows and label != OURS:
            row["gantrel_divided_by_this"] = ratio(self.rows[OURS], samples, "value")
        return row


def middle(samples, figure):
    values = [getattr(sample, figure) for sample in samples]
    return None if None in values else statistics.median(values)


def ratio(samples, others, figure):
    return statistics.median(getattr(a, figure) / getattr(b, figure)
                             for a, b in zip(samples, others))


def table(summary):
    columns = [("median", summary["unit"]), ("p99", "p99"),
               ("processor_time", "server µs/op"), ("gantrel_divided_by_this", "gantrel ÷ it")]
    columns = [(key, head) for key, head in columns
               if any(row.get(key) is not None for row in summary["rows"])]
    lines = [["", *(head for _, head in columns)]]
    for row in summary["rows"]:
        figures = [row.get(key) for key, _ in columns]
        lines.append([row["label"], *("" if f is None else number(f) for f in figures)])
    return "\n".join([summary["title"], *aligned(lines), *goal_lines(summary["goals"])]) + "\n"


def aligned(lines):
    """The cells of each line, one column below the other."""
    widths = [max(map(len, column)) for column in zip(*lines)]
    return ["  " + line[0].ljust(widths[0]) +
            "".join("  " + cell.rjust(width) for cell, width in zip(line[1:], widths[1:]))
            for line in lines]


def goal_lines(goals):
    return [f"  {'met   ' if goal['met'] else 'MISSED'} {goal['goal']}: {number(goal['measured'])}"
            for goal in goals]


def number(value):
    return f"{value:,.0f}" if abs(value) >= 1000 else f"{value:.3g}"


def machine():
    """Where this runs; also said."""
    model = next((line.partition(":")[2].strip() for line in open("/proc/cpuinfo")
                  if line.startswith("model name")), platform.machine())
    run = subprocess.run([program(BY_NAME[OURS].client), "machine"], stdout=subprocess.PIPE, check=True)
    found = {"processor": model, "processors": os.cpu_count(), "kernel": platform.release(),
             "load": round(os.getloadavg()[0], 2), **json.loads(run.stdout)}
    print(f"{model}, {found['processors']} processors, Linux {found['kernel']}; a system call (getppid) "
          f"takes {found['system_call_ns']} ns; load {found['load']}\n", flush=True)
    return found


def picture(summaries, path):
    """A panel for each question that compares, with bars of the medians; drawn by gnuplot."""
    summaries = [summary for summary in summaries if len(summary["rows"]) > 1]
    columns = 3
    lines = -(-len(summaries) // columns)
    script = [f"set terminal svg size {columns * 460},{lines * 270} dynamic background rgb 'white' "
              "font 'sans-serif,11'",
              f"set output '{path}'",
              "set style fill solid 0.8 noborder", "set boxwidth 0.7", "unset key",
              "set xtics nomirror noenhanced scale 0", "unset ytics", "set border 1",
              "set lmargin 5", "set bmargin 3",
              f"set multiplot layout {lines},{columns}"]
    for summary in summaries:
        width = 48 // len(summary["rows"])  # of a label, in letters
        script += ["$data << END"]
        script += [f"{i} {row['median']} \"{wrapped(row['label'], width)}\" \"{number(row['median'])}\" "
                   f"{OUR_COLOUR if row['label'].startswith(OURS) else OTHER_COLOUR}"
                   for i, row in enumerate(summary["rows"])]
        script += ["END", f"set title \"{wrapped(summary['title'])}\"",
                   f"set ylabel \"{summary['unit']}\" noenhanced",
                   "set yrange [0:*]", "set offsets 0.6, 0.6, graph 0.15, 0",
                   "plot $data using 1:2:5:xtic(3) with boxes lc rgb variable, "
                   "'' using 1:2:4 with labels offset 0,0.6 noenhanced"]
    script += ["unset multiplot"]
    subprocess.run(["gnuplot"], input="\n".join(script), text=True, check=True)


def wrapped(title, width=52):
    lines = [""]
    for word in title.split():
        if len(lines[-1]) + len(word) > width:
            lines.append("")
        lines[-1] += word + " "
    return "\\n".join(line.strip() for line in lines)


def report(questions, rounds):
    """Prints each question's table as soon as it is answered, then writes all of them."""
    where = machine()
    start = time.monotonic()
    summaries = []
    for question in questions:
        summaries.append(question.summary())
        print(table(summaries[-1]), flush=True)
    seconds = round(time.monotonic() - start)
    results = {"machine": where, "rounds": rounds, "seconds": seconds, "questions": summaries}
    (BUILD / "results.json").write_text(json.dumps(results, indent=1, ensure_ascii=False) + "\n")
    picture(summaries, BUILD / "results.svg")
    missed = sum(not goal["met"] for summary in summaries for goal in summary["goals"])
    print(f"{seconds} seconds; {missed} goals missed; all figures in {BUILD}/results.json, "
          f"the picture in {BUILD}/results.svg")
