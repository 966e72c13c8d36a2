# Shows doxygen the comments as they stand in our headers: the one at the top belongs to the file, one before
# a declaration to that, one behind it to that too. Text is plain, save for what is set in: that is code.
# Specialisations of std::hash are left out: doxygen looks for their scope in vain, and readers need not.

function text(rest) {
  if (rest ~ /^   /) return "    " rest
  gsub(/[\\@<>&#*_~]/, "\\\\&", rest)
  gsub(/::/, "\\::", rest)
  return rest
}

BEGIN { top = 1; behind = 0; hash = 0 }

/^template <>$/ { print ""; next }
/^struct std::hash</ { hash = 1 }
hash { print ""; if (/^};/) hash = 0; next }

{
  if (NR == 1 && /^\/\//) print "/// @file"
  if (!/^\/\//) top = 0
  at = index($0, "// ")
  alone = /^ *\/\//
  if (alone && $0 ~ /^ *\/\/$/) {
    sub(/\/\//, "///")
    print
  } else if (alone && behind && at == behind) {
    print substr($0, 1, at - 1) "///<" text(substr($0, at + 2))
  } else if (alone) {
    print substr($0, 1, at - 1) "///" text(substr($0, at + 2))
    behind = 0
  } else if (at > 1 && !/^ *}/ && !/"[^"]*\/\/ /) {
    print substr($0, 1, at - 1) "///<" text(substr($0, at + 2))
    behind = at
  } else {
    print
    behind = 0
  }
}
