# Writes a bash completion, which needs nothing but bash. Variable: name of the program.
#
# Values are offered where --help lists them (a|b|c, {a,b} or "a, b or c"), files where it says FILE.

function list_of_words(text, separator) {
  gsub(separator, " ", text)
  return text
}

function choices_of(value, text) {
  if (value ~ /^[a-z0-9-]+([|][a-z0-9-]+)+$/) return list_of_words(value, "[|]")
  if (match(value, /[{][^}]*[}]/)) return list_of_words(substr(value, RSTART + 1, RLENGTH - 2), ",")
  if (text ~ /^[a-z]+(, [a-z]+)* or [a-z]+$/) return list_of_words(text, ", | or ")
  return ""
}

# What follows the names of an option; empty for a flag.
function value_of(left,    words) {
  if (split(left, words, " ") < 2 || words[2] ~ /^(Needs|Excludes):$/) return ""
  return words[2]
}

function add_case(names, value, text,    choices) {
  choices = choices_of(value, text)
  gsub(/,/, " | ", names)
  if (value ~ /^FILE/) cases = cases "    " names ") " offer("-f") " ;;\n"
  else if (choices != "") cases = cases "    " names ") " offer("-W '" choices "'") " ;;\n"
  else free_values = free_values (free_values == "" ? "" : " | ") names
}

function offer(what) { return "mapfile -t COMPREPLY < <(compgen " what " -- \"$word\")" }

function on_option(left, text,    names) {
  names = left
  sub(/ .*/, "", names)
  if (names !~ /^-/) {
    takes_file = takes_file || names == "FILE"
    return
  }
  if (value_of(left) != "") add_case(names, value_of(left), text)
  options = options (options == "" ? "" : " ") list_of_words(names, ",")
}

function on_summary(line) {}
function on_usage(text) {}
function on_heading(text) {}
function on_line(line) {}

function on_end(    function_name) {
  function_name = "_" list_of_words(name, "-")
  gsub(/ /, "_", function_name)
  print "# bash completion of " name ", made from what it says to --help"
  print function_name "() {"
  print "  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}"
  print "  COMPREPLY=()"
  print "  case $before in"
  printf "%s", cases
  if (free_values != "") print "    " free_values ") ;;"
  print "    *)"
  print "      if [[ $word == -* ]]; then"
  print "        " offer("-W '" options "'")
  if (takes_file) print "      else\n        " offer("-f")
  print "      fi\n      ;;\n  esac\n}"
  print "complete -o filenames -F " function_name " " name
}
