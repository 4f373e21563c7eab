# Doxygen input filter for vkkrn.h, which keeps plain C comments: a block at
# the start of a line that begins with a word becomes the doc block of what
# follows.  Section banners begin with = or -, field notes are not at the
# start of a line, so neither is taken.
s,^/[*] \([A-Za-z]\),/** \1,
