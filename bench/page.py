"""One self-contained HTML page of measurements: tables, and plots where matplotlib is there."""

import base64
import datetime
import html
import io
import math
import os
import platform

import figures

STYLE = """
body { font: 15px/1.45 system-ui, sans-serif; margin: 2em auto; max-width: 76em; padding: 0 1em;
       color: #1c2530; }
h1 { font-size: 1.5em } h2 { font-size: 1.15em; margin-top: 2em }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; font-size: .92em }
th, td { padding: .15em .7em; text-align: right; border-bottom: 1px solid #dde3ea }
th { color: #4c5a6a; font-weight: 600 } td:first-child, th:first-child { text-align: left }
.met { color: #13703b } .missed { color: #b3261e; font-weight: 600 } .none { color: #7a8794 }
.ours { background: #eef5ff } .scroll { overflow-x: auto } img { max-width: 100% }
"""
# Whole times that should be straight lines, and times of one operation that should be level.
BAR_CASES = ("hit", "hit_dep", "miss", "many32", "scan", "insert", "update", "mixed_read",
             "mixed_write", "drain_write")


def machine():
    """What the figures are of: processor, cores, memory, kernel."""
    facts = {}
    for path, names in (("/proc/cpuinfo", ("model name",)), ("/proc/meminfo", ("MemTotal",))):
        try:
            with open(path, encoding="utf-8") as file:
                for line in file:
                    name, _, value = line.partition(":")
                    if name.strip() in names:
                        facts.setdefault(name.strip(), value.strip())
        except OSError:
            continue
    return ", ".join([facts.get("model name", platform.machine()), f"{os.cpu_count()} cores",
                      gigabytes(facts.get("MemTotal", "")), f"Linux {platform.release()}"])


def gigabytes(text):
    """Of "24684084 kB"; what is not of that form as it is."""
    number, _, unit = text.partition(" ")
    return f"{int(number) / 1e6:.0f} GB" if number.isdigit() and unit == "kB" else text or "?"


def table(rows, marked=None):
    """`marked` names the column that is ours."""
    ours = rows[0].index(marked) if marked in rows[0] else -1
    lines = []
    for number, row in enumerate(rows):
        tag = "td" if number else "th"
        cells = []
        for i, cell in enumerate(row):
            kind = {"met": "met", "MISSED": "missed", "FASTER": "missed",
                    "not measured": "none"}.get(cell)
            kind = kind or ("ours" if i == ours else "")
            cells.append(f"<{tag}{f' class={kind}' if kind else ''}>{html.escape(cell)}</{tag}>")
        lines.append("<tr>" + "".join(cells) + "</tr>")
    return '<div class="scroll"><table>' + "\n".join(lines) + "</table></div>"


def across(rows):
    """Rows of case, n, unit, median, ... as one row a case, with its medians under their sizes."""
    sizes = sorted({int(row[1]) for row in rows[1:] if row[1] != "-"})
    cells = {}
    for case, n, unit, median, *_ in rows[1:]:
        cells.setdefault((case, unit), {})[n] = median
    found = [["case", "unit", *map(str, sizes), "-"]]
    for (case, unit), medians in cells.items():
        found.append([case, unit, *(medians.get(str(n), "") for n in sizes), medians.get("-", "")])
    if not any(row[-1] for row in found[1:]):
        found = [row[:-1] for row in found]
    return found


def growth(sizes, times):
    """(from n, exponent e of time ~ n^e over the last decade of n); e is 1 for a straight line."""
    first = next(i for i, n in enumerate(sizes) if n * 10.01 >= sizes[-1])
    first = min(first, len(sizes) - 2)
    if times[first] <= 0 or times[-1] <= 0:
        return sizes[first], None
    return sizes[first], math.log(times[-1] / times[first]) / math.log(sizes[-1] / sizes[first])


def lines_of(found, unit, peer=figures.OURS):
    """{case: (sizes, medians)} of a unit, where there are two sizes at least."""
    result = {}
    for case in found.cases():
        if found.units[case] != unit:
            continue
        sizes = [n for n in found.sizes() if n and found.median(peer, n, case) is not None]
        if len(sizes) > 1:
            result[case] = (sizes, [found.median(peer, n, case) for n in sizes])
    return result


def scaling_rows(found):
    """How whole times grow over the last decade of their sizes."""
    rows = [["whole time of", "from n", "to n", "ms at the largest", "exponent", "grows"]]
    for case, (sizes, times) in lines_of(found, "ms").items():
        low, exponent = growth(sizes, times)
        if exponent is not None:
            grows = "slower than n" if exponent < .85 else "as n" if exponent <= 1.25 else "FASTER"
            rows.append([case, str(low), str(sizes[-1]), figures.short(times[-1]),
                         f"{exponent:.2f}", grows])
    return rows if len(rows) > 1 else []


def image(figure, plots):
    buffer = io.BytesIO()
    figure.savefig(buffer, format="svg", bbox_inches="tight")
    plots.close(figure)
    data = base64.b64encode(buffer.getvalue()).decode()
    return f'<img alt="plot" src="data:image/svg+xml;base64,{data}">'


def line_plot(plots, title, unit, lines):
    figure, axes = plots.subplots(figsize=(10, 5))
    axes.set_prop_cycle(color=plots.get_cmap("tab20").colors)
    for case, (sizes, times) in lines.items():
        axes.plot(sizes, times, marker="o", label=case)
    axes.set(xscale="log", yscale="log", xlabel="n", ylabel=unit, title=title)
    axes.grid(True, which="major", alpha=.3)
    axes.legend(fontsize="small", loc="center left", bbox_to_anchor=(1, .5))
    return image(figure, plots)


def bar_plot(plots, found, n):
    """Every peer's time of the chief cases, as a share of ours; a logarithmic scale."""
    cases = [c for c in BAR_CASES if found.median(figures.OURS, n, c)]
    peers = [p for p in found.peers() if p not in (figures.OURS, "null") and
             not p.endswith(figures.VARIANTS) and any(found.median(p, n, c) for c in cases)]
    if not cases or not peers:
        return ""
    figure, axes = plots.subplots(figsize=(12, 4.5))
    width = .8 / len(peers)
    for i, peer in enumerate(peers):
        shares = [(found.median(peer, n, c) or float("nan")) / found.median(figures.OURS, n, c)
                  for c in cases]
        axes.bar([at + i * width for at in range(len(cases))], shares, width, label=peer)
    axes.axhline(1, color="black", linewidth=1)
    axes.set(yscale="log", ylabel="times as long as ours", title=f"n = {n}")
    axes.set_xticks([at + .4 - width / 2 for at in range(len(cases))], cases, rotation=20)
    axes.legend(fontsize="small", ncol=2, loc="center left", bbox_to_anchor=(1, .5))
    return image(figure, plots)


def plots_of(found):
    """HTML of all plots."""
    try:
        import matplotlib
    except ImportError:
        return "<p>No plots: matplotlib is not installed.</p>"
    matplotlib.use("Agg")
    from matplotlib import pyplot
    parts = []
    for unit, title in (("ms", "whole times against n: straight lines rise by one decade a decade"),
                        ("ns/op", "times of one operation against n")):
        lines = lines_of(found, unit)
        if lines:
            parts.append(line_plot(pyplot, title, unit, lines))
    parts += [bar_plot(pyplot, found, n) for n in found.sizes() if n]
    return "\n".join(parts)


def sections(found, targets):
    """(heading, HTML) of the page, in its order: targets and plots before the long tables."""
    whole = figures.tables(found, targets)
    first = [part for part in whole if part[0] == "Targets"]
    scaling = scaling_rows(found)
    if scaling:
        first.append(("How cost grows", scaling))
    for heading, rows in first:
        yield heading, table(rows)
    yield "Plots", plots_of(found)
    for heading, rows in whole:
        if heading == "Without peers":
            yield heading, (f"<p>Medians, by n.</p>{table(across(rows))}<details><summary>Worst "
                            f"rounds and 32 bit</summary>{table(rows)}</details>")
        elif heading != "Targets":
            yield heading, table(rows, figures.OURS)


def write(found, targets, path):
    bad = figures.bad_lines(found)
    parts = ["<!doctype html><html lang=en><meta charset=utf-8><title>Benchmarks</title>",
             f"<style>{STYLE}</style><h1>Benchmarks</h1>",
             f"<p>{html.escape(machine())}; {datetime.datetime.now():%Y-%m-%d %H:%M}. Times in the "
             "unit that stands beside them, medians of the rounds; less is better.</p>",
             f"<p>Targets: {figures.summary(found, targets)}.</p>"
             if figures.judged(found, targets) else ""]
    if bad:
        parts.append(f"<p class=missed>{'<br>'.join(map(html.escape, bad))}</p>")
    parts += [f"<h2>{html.escape(heading)}</h2>\n{body}" for heading, body in
              sections(found, targets)]
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(parts) + "</html>\n")
