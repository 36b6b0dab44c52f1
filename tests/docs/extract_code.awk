# Writes the code blocks of a page to files, and prints the files' names, in their order.
# A block's file is named behind its language, ```c daemon.c, or else after the page: stem_1.c.
# Usage: awk -v dir=DIRECTORY -v stem=STEM -v languages="c cpp" -f extract_code.awk PAGE

BEGIN {
    split(languages, list, " ")
    for (i in list)
        wanted[list[i]] = 1
}

/^```/ && file != "" {
    close(file)
    file = ""
    next
}

file != "" { print > file }

/^```[a-z]/ {
    language = substr($1, 4)
    if (language in wanted) {
        name = NF > 1 ? $2 : stem "_" ++count "." language
        file = dir "/" name
        printf "" > file
        print name
    }
}
