# Takes a document apart: prints a line for each part, its number, its line and its kind, and puts it
# into files of the folder given with -v folder=FOLDER.
#
#     sh        NUMBER.command: a fence of commands
#     console   NUMBER.command, NUMBER.expected: a command behind a $, and what it prints
#     output    NUMBER.command: what a console fence prints before there is a command
#     inline    NUMBER.command: code within a paragraph, or a command of it, behind all fences of the
#               document

function begin(kind, line) {
    part = sprintf("%s/%04d", folder, ++parts)
    printf "%04d %d %s\n", parts, line, kind
    command = part ".command"
    expected = part ".expected"
    printf "" >command
    printf "" >expected
}

function unindented(line) {
    return substr(line, 1, indent) ~ /^ *$/ ? substr(line, indent + 1) : line
}

# A line that ends so is gone on with behind the > of the shell's second prompt.
function is_unfinished(line) { return line ~ /(\\|\||&&)$/ }

function take_console(line) {
    if (line ~ /^\$ /) {
        begin("console", FNR)
        print substr(line, 3) >command
        in_command = is_unfinished(line)
    } else if (in_command && line ~ /^> /) {
        print substr(line, 3) >command
        in_command = is_unfinished(line)
    } else {
        if (expected == "") {
            begin("output", FNR)
            print line >command
        }
        print line >expected
    }
}

function take_code(code,    commands, count, i) {
    count = split(code, commands, / (&&|\|\||\|) |; /)
    for (i = 1; i <= count; ++i) {
        inline[++inlines] = commands[i]
        inline_line[inlines] = FNR
    }
}

# Code may go on in the next line, and not beyond the paragraph.
function take_text(line,    pieces, count, i) {
    if (line == "") in_code = 0
    count = split(line, pieces, "`")
    for (i = 1; i <= count; ++i) {
        if (in_code) code = code pieces[i]
        if (i == count) break
        if (in_code) {
            gsub(/\\\|/, "|", code)
            take_code(code)
        }
        code = ""
        in_code = !in_code
    }
    code = code " "
}

/^ *```/ {
    match($0, /^ */)
    indent = RLENGTH
    kind = inside ? "" : substr($0, indent + 4)
    inside = !inside
    expected = ""
    in_code = 0
    if (kind == "sh") begin("sh", FNR + 1)
    next
}
inside && kind == "sh" { print unindented($0) >command }
inside && kind == "console" { take_console(unindented($0)) }
!inside { take_text($0) }
END {
    for (i = 1; i <= inlines; ++i) {
        begin("inline", inline_line[i])
        print inline[i] >command
    }
}
