#!/usr/bin/env python3
"""Puts what the programs of bench/ have measured together: one file of JSON, a picture, the measured
part of docs/performance.md, and a word on the targets."""

import argparse
import datetime
import html
import json
import os
import pathlib
import platform
import re
import subprocess
import sys

# What the picture shows: what a message costs. The tables have all.
PICTURED = ["udp_bench", "self_loop_bench", "hdc_bench"]

BEGIN = "<!-- measured: begin (scripts/bench.sh --docs) -->"
END = "<!-- measured: end -->"


def first_match(path, pattern):
    found = re.search(pattern, pathlib.Path(path).read_text(errors="replace"), re.MULTILINE)
    return found.group(1).strip() if found else "unknown"


def machine(build):
    compiler = first_match(build / "CMakeCache.txt", r"^CMAKE_CXX_COMPILER:\w+=(.+)$")
    version = subprocess.run([compiler, "--version"], capture_output=True, text=True, check=False)
    is_virtual = "hypervisor" in first_match("/proc/cpuinfo", r"^flags\s*:(.+)$")
    return {
        "processor": first_match("/proc/cpuinfo", r"^model name\s*:(.+)$"),
        "processors": os.cpu_count(),
        "virtual": is_virtual,
        "kernel": platform.release(),
        "compiler": version.stdout.splitlines()[0] if version.stdout else compiler,
        "build": first_match(build / "CMakeCache.txt", r"^CMAKE_BUILD_TYPE:\w+=(.+)$"),
        "date": datetime.date.today().isoformat(),
    }


def works_of(program):
    """The rows by work, in their order: the first row of a work is what the others are compared with."""
    works = {}
    for row in program["rows"]:
        works.setdefault(row["work"], []).append(row)
    return works


def cost(row):
    return row["processor_ns"]["median"]


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.1f}"


# ---- targets ----


def verdict(target):
    is_ratio = target["unit"] == "ratio"
    show = (lambda value: f"{value:.2f}") if is_ratio else (lambda value: f"{number(value)} ns")
    at_most = show(target["at_most"]) if "at_most" in target else "not set"
    return show(target["value"]), at_most


def missed(programs):
    return [t for program in programs for t in program["targets"] if not t.get("kept", True)]


def print_targets(programs):
    for target in missed(programs):
        value, at_most = verdict(target)
        print(f"MISSED: {target['what']}: {value}, at most {at_most}")
    checked = sum("kept" in target for program in programs for target in program["targets"])
    print(f"{checked - len(missed(programs))} of {checked} targets are kept.")


# ---- tables ----


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return lines + ["| " + " | ".join(row) + " |" for row in rows] + [""]


def cost_table(program):
    rows = []
    for work, systems in works_of(program).items():
        for index, row in enumerate(systems):
            half = row["processor_ns"]
            name = f"**{row['system']}**" if row["system"] == "library" else row["system"]
            rows.append([work if index == 0 else "", name, number(cost(row)),
                         f"{number(half['lower'])} to {number(half['upper'])}",
                         number(row["wall_ns"]["median"]),
                         f"{cost(row) / cost(systems[0]):.2f}"])
    head = ["work", "system", "processor, ns", "middle half", "wall, ns", "times the first"]
    return table(head, rows)


def target_table(program):
    if not program["targets"]:
        return []
    rows = []
    for target in program["targets"]:
        value, at_most = verdict(target)
        kept = {True: "yes", False: "**no**", None: ""}[target.get("kept")]
        rows.append([target["what"], value, at_most, kept])
    return table(["target", "measured", "at most", "kept"], rows)


def left_out(program):
    return [f"Not measured: {row['work']} with {row['system']}: {row['why']}.\n"
            for row in program["left_out"]]


def title(program):
    return program["program"].removesuffix("_bench").replace("_", " ")


def measured_part(results, svg_name):
    host = results["machine"]
    kind = "virtual machine, " if host["virtual"] else ""
    lines = [BEGIN, "",
             f"Measured on {host['date']}: {kind}{host['processors']} processors ({host['processor']}), "
             f"Linux {host['kernel']}, {host['compiler']}, {host['build']}.", "",
             f"![What a message costs, by system]({svg_name})", ""]
    for program in results["programs"]:
        lines += [f"### {title(program)}", ""]
        lines += cost_table(program) + target_table(program) + left_out(program)
    return "\n".join(lines + [END])


def write_docs(path, results, svg):
    text = path.read_text()
    before, rest = text.split(BEGIN)
    _, after = rest.split(END)
    picture_path = path.with_suffix(".svg")
    path.write_text(before + measured_part(results, picture_path.name) + after)
    picture_path.write_text(svg)


# ---- picture ----

STYLE = """
  .page { fill: #ffffff } text { font: 13px system-ui, sans-serif; fill: #1f2328 }
  .work { font-weight: 600 } .value { font-variant-numeric: tabular-nums }
  .floor { fill: #8c959f } .library { fill: #0969da } .peer { fill: #d4a72c }
  @media (prefers-color-scheme: dark) {
    .page { fill: #0d1117 } text { fill: #e6edf3 }
    .floor { fill: #6e7681 } .library { fill: #4493f8 } .peer { fill: #9e7a1a }
  }
"""

WIDTH = 1000
LABEL = 360
LONGEST = 480
LINE = 22


def bar_class(row):
    if row["system"] == "library":
        return "library"
    return "floor" if row["system"].startswith("bare") else "peer"


def bars(work, systems, top):
    longest = max(cost(row) for row in systems)
    parts = [f'<text class="work" x="16" y="{top + 15}">{html.escape(work)}</text>']
    for index, row in enumerate(systems):
        y = top + LINE * (index + 1)
        width = max(1, LONGEST * cost(row) / longest)
        value = f"{number(cost(row))} ns ({cost(row) / cost(systems[0]):.2f})"
        parts += [
            f'<text x="{LABEL - 8}" y="{y + 13}" text-anchor="end">{html.escape(row["system"])}</text>',
            f'<rect class="{bar_class(row)}" x="{LABEL}" y="{y + 2}" width="{width:.1f}" height="14"/>',
            f'<text class="value" x="{LABEL + width + 6:.1f}" y="{y + 13}">{value}</text>']
    return parts, top + LINE * (len(systems) + 1) + 14


def picture(results):
    parts, top = [], 44
    for program in results["programs"]:
        if program["program"] in PICTURED:
            for work, systems in works_of(program).items():
                more, top = bars(work, systems, top)
                parts += more
    head = "Processor time of one operation, all threads; in brackets, times the first of its group"
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {top}" role="img">',
        f"<title>{head}</title>", f"<style>{STYLE}</style>",
        f'<rect class="page" width="{WIDTH}" height="{top}"/>',
        f'<text x="16" y="26">{head}</text>', *parts, "</svg>", ""])


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--build", type=pathlib.Path, required=True)
    options.add_argument("--json", type=pathlib.Path, required=True)
    options.add_argument("--svg", type=pathlib.Path, required=True)
    options.add_argument("--docs", type=pathlib.Path)
    options.add_argument("--check", action="store_true")
    options.add_argument("programs", nargs="+", help="results of programs, without .json")
    given = options.parse_args()
    results = {"machine": machine(given.build),
               "programs": [json.loads(pathlib.Path(f"{path}.json").read_text())
                            for path in given.programs]}
    svg = picture(results)
    given.json.write_text(json.dumps(results, indent=2) + "\n")
    given.svg.write_text(svg)
    if given.docs:
        write_docs(given.docs, results, svg)
    print_targets(results["programs"])
    return 1 if given.check and missed(results["programs"]) else 0


if __name__ == "__main__":
    sys.exit(main())
