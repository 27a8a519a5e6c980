"""What a run measured: its header and its cases, read from the file that the benchmark writes."""

import json


class Case:
    """The same work by several contestants."""

    def __init__(self, record):
        self.section = record["section"]
        self.labels = record["labels"]
        self.bytes = record["bytes"]
        self.items = record["items"]
        self.times = record.get("times", [])
        self.figures = record.get("figures", {})

    def __getitem__(self, label):
        return self.labels.get(label)

    def matches(self, labels):
        """A label is given by its value, or by a tuple or a range of values."""
        return all(self[key] in wanted if isinstance(wanted, (tuple, range)) else self[key] == wanted
                   for key, wanted in labels.items())

    def of_role(self, role):
        return [time for time in self.times if time["role"] == role]

    def fastest(self, role):
        """The fastest contestant of a role, or None."""
        return min(self.of_role(role), key=lambda time: time["median"], default=None)

    def named(self, start):
        """The contestant whose name starts so, or None."""
        return next((time for time in self.times if time["name"].startswith(start)), None)

    @property
    def engine(self):
        return self.fastest("engine")

    def speed(self, contestant, of=None):
        """How often the engine, or another, does the work in the contestant's time, or None."""
        return contestant["median"] / (of or self.engine)["median"] if contestant else None

    def of_limit(self, contestant=None):
        """The part of the limit that a contestant, usually the engine, reaches."""
        return self.speed(self.fastest("limit"), contestant)

    def against_peer(self):
        return self.speed(self.fastest("peer"))

    def against_baseline(self):
        return self.speed(self.fastest("baseline"))

    def beyond_spread(self):
        """Against the baseline, by medians or by the fastest samples, whichever is larger."""
        base, engine = self.fastest("baseline"), self.engine
        return max(base[sample] / engine[sample] for sample in ("median", "min"))

    def cost(self):
        """The engine's time in multiples of the baseline's."""
        return 1 / self.against_baseline()

    def gigabytes_per_second(self, contestant):
        return self.bytes / contestant["median"] / 1e9

    def nanoseconds_per_item(self, contestant=None):
        return (contestant or self.engine)["median"] / self.items * 1e9


class Run:
    """All cases of one run, in the order in which they were measured."""

    def __init__(self, path):
        with open(path, encoding="utf-8") as lines:
            header, *records = map(json.loads, lines)
        self.header = header["run"]
        self.cases = [Case(record) for record in records]

    def select(self, section, **labels):
        return [case for case in self.cases if case.section == section and case.matches(labels)]

    def values(self, section, label):
        """The values of a label, each once, in the order of their first appearance."""
        return list(dict.fromkeys(case[label] for case in self.select(section)))
