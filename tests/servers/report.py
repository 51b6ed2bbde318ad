"""The outcomes as tables of Markdown."""

ALL = ["server", "form", "game's exit code", "image", "bytes received", "requests", "on demand", "longest wait, s"]
ALL += ["time, s", "passed"]
SHORT = ["server", "game's exit code", "image", "bytes received", "on demand", "longest wait, s"]


def figure(value, text="{}"):
    return "–" if value is None else text.format(value)


def cells_of(outcome):
    """The cells of a row, by the heads of their columns."""
    passed = "the run says what the server lacks" if outcome.told_end else "yes"
    if outcome.faults:
        passed = "no: " + "; ".join(outcome.faults)
    demand = "–" if outcome.fetches is None else f"yes, {outcome.fetches}" if outcome.fetches else "no"
    cells = [
        outcome.case,
        outcome.form,
        figure(outcome.game_code),
        figure(outcome.image),
        figure(outcome.ratio, "{:.2f}"),
        figure(outcome.requests),
        demand,
        figure(outcome.longest, "{:.2f}"),
        figure(outcome.seconds, "{:.1f}"),
        passed,
    ]
    return dict(zip(ALL, cells, strict=True))


def line(cells):
    return f"| {' | '.join(cells)} |"


def heads(names=None):
    names = names or ALL
    return f"{line(names)}\n{'|---' * len(names)}|"


def row(outcome):
    return line(cells_of(outcome).values())


def short_row(outcomes):
    """One line for all forms of a case: plain, then packed where that differs."""
    of_forms = [cells_of(outcome) for outcome in outcomes]
    if any(outcome.faults or outcome.told_end for outcome in outcomes):
        return line([of_forms[0]["server"], of_forms[0]["passed"], "", "", "", ""])
    columns = [[cells[name].removeprefix("yes, ") for cells in of_forms] for name in SHORT]
    return line([" / ".join(dict.fromkeys(column)) for column in columns])
