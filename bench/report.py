"""Sections of docs/performance.md that the benchmark scripts write."""
import os


def replace_section(path, heading, lines):
    """Puts `lines` (starting with `heading`) at the end of the file, in
    place of the section the script wrote before."""
    text = open(path).read() if os.path.exists(path) else "# Performance\n"
    at = text.find(heading)
    if at >= 0:
        end = text.find("\n## ", at + len(heading))
        text = text[:at] + text[end + 1:] if end >= 0 else text[:at]
    open(path, "w").write(text.rstrip("\n") + "\n\n" + "\n".join(lines) + "\n")
