# A filter for Doxygen: gives a header as it is, and behind it the layout of each of its records as
# the assertions have it. An array's type and a pointer's target are in the record itself.

{ print }

# An assertion may go over two lines.
/^DM_ASSERT_OFFSET\(|^DM_ASSERT_SIZE\(|^DM_STATIC_ASSERT\(sizeof\(/ { statement = "" }
/^DM_ASSERT_OFFSET\(|^DM_ASSERT_SIZE\(|^DM_STATIC_ASSERT\(sizeof\(/, /;$/ {
    statement = statement $0
    if ($0 ~ /;$/)
        note(statement)
}

function note(text, parts, record) {
    if (text ~ /^DM_STATIC_ASSERT/) {
        if (match(text, /sizeof\([A-Z_]+\) == [0-9]+/) == 0)
            return
        text = substr(text, RSTART, RLENGTH)
        split(text, parts, /sizeof\(|\) == /)
        see(parts[2])
        size[parts[2]] = parts[3]
        return
    }
    sub(/^[A-Z_]*\(/, "", text)
    sub(/\);$/, "", text)
    if (split(text, parts, /, */) == 2) {
        see(parts[1])
        size[parts[1]] = parts[2]
    } else {
        record = parts[1]
        see(record)
        rows[record] = rows[record] " * | " parts[3] " | " parts[2] " |\n"
    }
}

function see(record) {
    if (!(record in seen)) {
        seen[record] = 1
        order[++count] = record
    }
}

END {
    for (i = 1; i <= count; ++i) {
        record = order[i]
        printf "\n/** @struct %s\n * @par Layout, in bytes\n", record
        if (record in size)
            printf " * %s in all.\n", size[record]
        if (record in rows)
            printf " *\n * | at | field |\n * |---|---|\n%s", rows[record]
        print " */"
    }
}
