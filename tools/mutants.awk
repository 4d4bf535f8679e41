# Lists what tools/mutate can change in a C++ source, a line each: LINE COLUMN LENGTH NEW, for one operator or constant.
# Not changed: comments, texts, the preprocessor's lines, static assertions, and what is no operator between blanks, as
# the formatter lays them out (so that templates, pointers and references are not taken for one).
BEGIN {
  split("== != != == < <= <= < > >= >= > && || || && + - - + * / / * % / << >> >> << & | | & ^ |", pairs, " ")
  for (i = 1; i in pairs; i += 2) other[pairs[i]] = pairs[i + 1]
  split("+= -= -= += *= += /= *= <<= >>= >>= <<= &= |= |= &= ^= |=", pairs, " ")
  for (i = 1; i in pairs; i += 2) other[pairs[i]] = pairs[i + 1]
  split("true false false true ++ -- -- ++", pairs, " ")
  for (i = 1; i in pairs; i += 2) anywhere[pairs[i]] = pairs[i + 1]
}

function mutant(length_, new) { print NR, at, length_, new }

# A constant gets another last digit, up by one, or down from the highest.
function constant(text,   digits, last, hex) {
  if (text ~ /[.]/ || (text !~ /^0[xX]/ && text ~ /[eE]/)) return
  match(text, /[uUlL]*$/)
  digits = substr(text, 1, RSTART - 1)
  last = tolower(substr(digits, length(digits)))
  hex = index("0123456789abcdef", last)
  if (hex == 0) return
  mutant(length(text), substr(digits, 1, length(digits) - 1) \
    (last == "9" && text !~ /^0[xX]/ ? "8" : last == "f" ? "e" : substr("123456789abcdeff", hex, 1)) substr(text, RSTART))
}

# The length of the text or character that begins here, its end included.
function quoted(rest,   quote, i) {
  quote = substr(rest, 1, 1)
  for (i = 2; i <= length(rest) && substr(rest, i, 1) != quote; ++i)
    if (substr(rest, i, 1) == "\\") ++i
  return i
}

/^ *#/ || /static_assert/ || /^ *template/ { next }
{
  for (at = 1; at <= length($0); at += taken) {
    rest = substr($0, at)
    taken = 1
    if (in_comment) {
      if (rest ~ /^\*\//) { in_comment = 0; taken = 2 }
    } else if (rest ~ /^\/\//) {
      next
    } else if (rest ~ /^\/\*/) {
      in_comment = 1
    } else if (rest ~ /^["']/) {
      taken = quoted(rest)
    } else if (match(rest, /^[A-Za-z_][A-Za-z_0-9]*/)) {
      taken = RLENGTH
      word = substr(rest, 1, taken)
      if (word in anywhere) mutant(taken, anywhere[word])
    } else if (match(rest, /^[0-9]([0-9A-Za-z.]|'[0-9a-fA-F])*/)) {
      taken = RLENGTH
      constant(substr(rest, 1, taken))
    } else if (rest ~ /^(\+\+|--)/) {
      taken = 2
      mutant(2, anywhere[substr(rest, 1, 2)])
    } else if (rest ~ /^![A-Za-z_(]/) {
      mutant(1, "")
    } else if (substr($0, at - 1, 1) == " " && match(rest, /^[-+*\/%&|^<>=!]+( |$)/)) {
      operator = substr(rest, 1, RLENGTH)
      sub(/ $/, "", operator)
      taken = length(operator)
      if (operator in other) mutant(taken, other[operator])
    }
  }
}
