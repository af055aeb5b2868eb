"""The table at the end of the demo: times and memory with the fabric and with sockets, side by side."""


def human(count):
    for unit in ("B", "KiB", "MiB", "GiB"):
        if count < 1024 or unit == "GiB":
            return f"{count:.0f} {unit}" if unit == "B" else f"{count:.1f} {unit}"
        count /= 1024


def milliseconds(seconds):
    return f"{seconds * 1e3:.2f} ms"


def rate(size, seconds):
    return f"{size / seconds / 1e9:.2f} GB/s"


class Side:
    """A column of the table: the results of the executors, with the fabric or with sockets."""

    def __init__(self, results, file_size):
        self.results = results
        self.file_size = file_size

    def first_and_last(self, executor):
        result = self.results[executor]
        return ", ".join(milliseconds(result[byte] - result["begin"]) for byte in ("first", "last"))

    def rate(self):
        slowest = max(result["last"] - result["begin"] for result in self.results)
        return rate(len(self.results) * self.file_size, slowest)

    def private_memory(self):
        return sum(result["private"] for result in self.results)


def print_table(file_size, published, results, pool, sockets):
    """`sockets` holds the results of the receivers over sockets, or None if that part was skipped."""
    shared = Side(results, file_size)
    copies = Side(sockets, file_size) if sockets else None

    def other(text):
        return text(copies) if copies else "-"

    seconds = published["end"] - published["begin"]
    rows = [("", "shared pages", "a socket and a copy each"),
            ("publish (driver)", f"{milliseconds(seconds)}, {rate(file_size, seconds)}", "-")]
    for i in range(len(results)):
        rows.append((f"executor {i}: first, last byte readable", shared.first_and_last(i),
                     other(lambda side, i=i: side.first_and_last(i))))
    rows += [
        (f"made readable to {len(results)} executors at", shared.rate(), other(Side.rate)),
        ("pages of the pool", human(pool), "-"),
        ("private memory of all executors", human(shared.private_memory()),
         other(lambda side: human(side.private_memory()))),
        ("memory in all", human(pool + shared.private_memory()), other(lambda side: human(side.private_memory()))),
    ]
    print()
    for name, left, right in rows:
        print(f"{name:<42}{left:>26}{right:>28}")
    print("\nReadable means mapped and touched at its ends; each executor then read every byte for its SHA-256.")
