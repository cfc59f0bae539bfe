# Makes the comments of our headers what doxygen reads: // becomes ///, and ///< behind a declaration.
# -v group=NAME: the group that the file belongs to. In a comment, a line that begins like
# "Threads:   ..." is a paragraph with that title, and what is indented behind an empty line is code.

function tell(text) {
  if (match(text, /^   +/)) {
    if (previous == "" || in_code) {
      in_code = 1
      print "///     " text
      return
    }
    sub(/^ +/, "", text)
  } else {
    in_code = 0
  }
  if (match(text, /^[A-Z][a-z]+: +/)) {
    print "/// @par " substr(text, 1, index(text, ":") - 1)
    text = substr(text, RLENGTH + 1)
  }
  print "/// " text
}

NR == 1 {
  print "/// @file"
  print "/// @ingroup " group
  print "///"
}

/^ *\/\/ ----/ || /^ *\/\/ (cppcheck|NOLINT|clang-format)/ {
  print
  next
}

/^ *\/\/( |$)/ {
  text = $0
  sub(/^ *\/\/ ?/, "", text)
  tell(text)
  previous = text
  next
}

{
  in_code = 0
  previous = "x"
}

!/^#/ && /[;,{}] +\/\/ / {
  sub(/ \/\/ /, " ///< ")
}

{ print }
