# Writes a manual page. Variables: name and version of the program, programs (all, for SEE ALSO).

# As troff takes it for text: an unescaped hyphen would be drawn otherwise, and not be found.
function escaped(text) {
  gsub(/\\/, "\\e", text)
  gsub(/-/, "\\-", text)
  sub(/^[.']/, "\\\\\\&&", text)
  return text
}

function lower_first(text) { return tolower(substr(text, 1, 1)) substr(text, 2) }

# What whatis(1) shows: up to the first colon.
function title(    text) {
  text = summary
  sub(/:.*|\.$/, "", text)
  return lower_first(text)
}

function on_summary(line) { summary = trimmed(summary " " line) }

function on_usage(text) {
  printf ".TH %s 1 \"\" \"kavquote %s\" \"User Commands\"\n", toupper(escaped(name)), version
  printf ".SH NAME\n%s \\- %s\n", escaped(name), escaped(title())
  sub(/^[^ ]+ */, "", text)
  printf ".SH SYNOPSIS\n.B %s\n%s\n", escaped(name), escaped(text)
  printf ".SH DESCRIPTION\n%s\n", escaped(summary)
}

# Longer headings, which may name options, keep their letters.
function on_heading(text,    words) {
  print_block()
  heading = text
  if (text == "Positionals") text = "Arguments"
  if (split(text, words, " ") <= 2) print ".SH " toupper(escaped(text)); else print ".SS " escaped(text)
  is_below_heading = 1
}

function on_option(left, text) {
  sub(/ +REQUIRED$/, "", left)
  printf ".TP\n.B %s\n%s\n", escaped(left), escaped(text)
}

# Indented lines keep their breaks when they are examples, or set in columns.
function is_literal(line) {
  return line ~ /^ / && (heading ~ /^Examples?$/ || trimmed(line) ~ /   *[^ ]/ || line ~ /^   /)
}

function print_block(    i, literal) {
  for (i = 1; i <= block_lines; ++i) literal = literal || is_literal(block[i])
  if (block_lines > 0 && !is_below_heading) print ".PP"
  if (literal) print ".EX"
  for (i = 1; i <= block_lines; ++i) print escaped(literal ? block[i] : trimmed(block[i]))
  if (literal) print ".EE"
  if (block_lines > 0) is_below_heading = 0
  block_lines = 0
}

function on_line(line) {
  if (line == "" || (line ~ /^ /) != (block[block_lines] ~ /^ /)) print_block()
  if (line != "") block[++block_lines] = line
}

function on_end(    i, others, number_of_others) {
  print_block()
  print ".SH SEE ALSO"
  number_of_others = split(programs, others, " ")
  for (i = 1; i <= number_of_others; ++i) {
    if (others[i] != name) see_also = see_also (see_also == "" ? "" : " ,\n") ".BR " others[i] " (1)"
  }
  gsub(/ ,/, ",", see_also)
  gsub(/-/, "\\-", see_also)
  print see_also
}
