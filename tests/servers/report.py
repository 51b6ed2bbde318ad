"""The outcomes as a table of Markdown."""


def figure(value, text):
    return "–" if value is None else text.format(value)


def row(outcome):
    passed = "no: " + "; ".join(outcome.faults) if outcome.faults else "yes"
    demand = "–" if outcome.fetches is None else f"yes, {outcome.fetches}" if outcome.fetches else "no"
    cells = [
        outcome.case,
        outcome.form,
        figure(outcome.game_code, "{}"),
        outcome.image or "–",
        figure(outcome.ratio, "{:.2f}"),
        figure(outcome.requests, "{}"),
        demand,
        figure(outcome.longest, "{:.2f}"),
        figure(outcome.seconds, "{:.1f}"),
        passed,
    ]
    return f"| {' | '.join(cells)} |"


def heads():
    names = ["server", "form", "game's exit code", "image", "bytes received", "requests", "on demand"]
    names += ["longest wait, s", "time, s", "passed"]
    return f"| {' | '.join(names)} |\n{'|---' * len(names)}|"
