"""What the reports share: tables in Markdown, and pages with figures between two marker comments."""

END = "<!-- figures: end -->"


class ReportError(Exception):
    """A cause that the user can do something about."""


def begin_marker(command):
    return f"<!-- figures: begin; {command} replaces what follows -->"


def markdown_table(heads, rows):
    lines = [heads, ["---"] * len(heads)] + rows
    return "\n".join("| " + " | ".join(c.replace("|", "\\|") for c in line) + " |"
                     for line in lines)


def replaced_between_markers(text, begin, figures_text):
    at, end = text.find(begin), text.find(END)
    if at < 0 or end < at or text.count(begin) != 1 or text.count(END) != 1:
        raise ReportError(f"needs one line '{begin}' and one line '{END}' behind it")
    return f"{text[:at]}{begin}\n\n{figures_text}\n\n{text[end:]}"


def write_page(path, begin, figures_text):
    try:
        path.write_text(replaced_between_markers(path.read_text(), begin, figures_text))
    except ReportError as error:
        raise ReportError(f"{path} {error}") from error
