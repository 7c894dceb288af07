"""Prints tables in Markdown, aligned for a terminal."""

import statistics


def table(title, head, rows):
    """Prints one table, with numbers aligned to the right and words to the left."""
    cells = [[str(cell) for cell in row] for row in [head, *rows]]
    widths = [max(len(row[i]) for row in cells) for i in range(len(head))]
    words = [all(not _is_number(row[i]) for row in cells[1:]) for i in range(len(head))]
    print(f"\n{title}\n", flush=True)
    for row in cells:
        print_row(
            cell.ljust(width) if word else cell.rjust(width)
            for cell, width, word in zip(row, widths, words)
        )
        if row is cells[0]:
            print_row("-" * (w - 1) + ("-" if word else ":") for w, word in zip(widths, words))


def print_row(cells):
    print("| " + " | ".join(cells) + " |", flush=True)


def _is_number(cell):
    return cell[:1].isdigit() or cell[:1] in "-+" and cell[1:2].isdigit()


def quantile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))]


def median(values):
    return statistics.median(values)
