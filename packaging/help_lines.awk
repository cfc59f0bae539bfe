# Reads what a program says to --help, and tells the script that is loaded behind this one, which
# defines these functions:
#
#   on_summary(line)          what stands before the usage
#   on_usage(text)            the usage, without "Usage: "
#   on_heading(text)          a heading: of options, or of a section behind them
#   on_option(left, text)     one option or argument: how it is written, what it does
#   on_line(line)             a line of a section behind the options; empty between paragraphs
#   on_end()                  there is no more
#
# Options are indented by two below a heading. What they do begins in the 31st column, or there on the
# next line when they reach beyond it.

function trimmed(text) {
  gsub(/^ +| +$/, "", text)
  return text
}

function is_heading(line) { return line ~ /^[A-Z][^.]*:$/ }

function is_continued(i) { return lines[i + 1] ~ /^ / && trimmed(substr(lines[i + 1], 1, 30)) == "" }

# Headings of arguments and options, unlike those of other sections.
function begins_options(i) {
  return lines[i] == "Positionals:" || (is_heading(lines[i]) && lines[i + 1] ~ /^  -/)
}

# Tells the option that begins in line i; the result is the line behind it.
function tell_option(i,    left, text) {
  left = is_continued(i) ? lines[i] : substr(lines[i], 1, 30)
  text = is_continued(i) ? "" : trimmed(substr(lines[i], 31))
  for (; is_continued(i); ++i) text = trimmed(text " " trimmed(lines[i + 1]))
  on_option(trimmed(left), text)
  return i + 1
}

function tell_options(i) {
  on_heading(substr(lines[i], 1, length(lines[i]) - 1))
  for (++i; i <= count && lines[i] != "";) i = tell_option(i)
  return i
}

function skip_empty(i) {
  while (i <= count && lines[i] == "") ++i
  return i
}

function tell_section_line(line) {
  if (is_heading(line)) on_heading(substr(line, 1, length(line) - 1)); else on_line(line)
}

{ lines[++count] = $0 }

END {
  for (i = 1; i <= count && lines[i] !~ /^Usage: /; ++i) on_summary(lines[i])
  on_usage(substr(lines[i], 8))
  for (i = skip_empty(i + 1); begins_options(i); i = skip_empty(i)) i = tell_options(i)
  if (i <= count && !is_heading(lines[i])) on_heading("Notes")
  for (; i <= count; ++i) tell_section_line(lines[i])
  on_end()
}
