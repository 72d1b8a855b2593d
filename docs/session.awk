# Draws a terminal as an SVG. Reads the bytes of lines as decimal numbers; each line is "command",
# "output" or "error", a tab, and its text in UTF-8. Takes a title and a description, in XML.
#
# Each run of characters has its place and its length from the terminal's columns, so that they stay
# columns whatever font there is. A character that takes two of them, as East Asian ones do, is a run
# of its own. What is not ASCII becomes a reference by number.

BEGIN {
    columns = 72
    column = 8.4  # of 14 pixels, as monospaced fonts commonly have it
    row = 21
    margin = 20
    bar = 32
    colour["prompt"] = "#7ee08a"
    colour["command"] = "#ffffff"
    colour["output"] = "#c9d3e0"
    colour["error"] = "#ff8f8a"
    for (byte = 32; byte < 127; ++byte) ascii[byte] = sprintf("%c", byte)
    ascii[34] = "&quot;"
    ascii[38] = "&amp;"
    ascii[60] = "&lt;"
    ascii[62] = "&gt;"
}

{ for (i = 1; i <= NF; ++i) take_byte($i) }

END {
    begin_row("command")
    cursor = sprintf("<rect x=\"%g\" y=\"%g\" width=\"%g\" height=\"17\" fill=\"%s\"/>",
        margin + 2 * column, y - 13, column, colour["output"])
    width = columns * column + 2 * margin
    height = y + margin
    printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%g\" height=\"%g\"", width, height
    printf " viewBox=\"0 0 %g %g\" role=\"img\" aria-labelledby=\"title desc\">\n", width, height
    printf "<title id=\"title\">%s</title>\n<desc id=\"desc\">%s</desc>\n", title, description
    printf "<rect x=\"0.5\" y=\"0.5\" width=\"%g\" height=\"%g\" rx=\"10\"", width - 1, height - 1
    print " fill=\"#171c26\" stroke=\"#465063\"/>"
    printf "<path d=\"M0.5 %gV10.5A10 10 0 0 1 10.5 0.5H%gA10 10 0 0 1 %g 10.5V%gZ\"",
        bar, width - 10.5, width - 0.5, bar
    print " fill=\"#242b38\" stroke=\"#465063\"/>"
    for (i = 0; i < 3; ++i)
        printf "<circle cx=\"%g\" cy=\"%g\" r=\"5.5\" fill=\"#5b6678\"/>\n", 20 + 18 * i, bar / 2
    printf "<g font-family=\"ui-monospace, Menlo, Consolas, DejaVu Sans Mono, Liberation Mono,"
    print " monospace\" font-size=\"14\">"
    printf "%s</g>\n%s\n</svg>\n", drawn, cursor
}

function take_byte(byte) {
    if (byte >= 192) {
        point = byte >= 240 ? byte - 240 : byte >= 224 ? byte - 224 : byte - 192
        missing = byte >= 240 ? 3 : byte >= 224 ? 2 : 1
    } else if (byte >= 128) {
        point = point * 64 + byte - 128
        if (--missing == 0) take_character(point)
    } else {
        take_character(byte)
    }
}

function take_character(character) {
    if (character == 10) {
        end_run()
        kind = word = ""
    } else if (kind != "") {
        show(character)
    } else if (character == 9) {
        begin_row(word)
    } else {
        word = word ascii[character]
    }
}

function begin_row(its_kind) {
    kind = its_kind
    at = 0
    y = bar + margin + 5 + row * rows++
    if (kind != "command") return
    draw("$", 0, 1, "prompt")
    at = 2
}

function show(character, wide) {
    if (character == 9) {
        end_run()
        at += 8 - at % 8
        return
    }
    if (character == 32) {
        ++blanks
        ++at
        return
    }
    wide = is_wide(character)
    if (blanks > 1 || wide) end_run()
    if (run == "") {
        run_at = at
        blanks = 0
    }
    run = run (blanks > 0 ? " " : "") (character < 127 ? ascii[character] : "&#" character ";")
    blanks = 0
    at += wide ? 2 : 1
    run_end = at
    if (wide) end_run()
}

# The blocks that Unicode has as wide or fullwidth (UAX #11), without what is only symbols.
function is_wide(character) {
    return character >= 4352 && character <= 4447 ||    # Hangul Jamo
        character >= 11904 && character <= 42191 ||     # CJK, kana, Yi
        character >= 44032 && character <= 55203 ||     # Hangul
        character >= 63744 && character <= 64255 ||     # CJK compatibility
        character >= 65072 && character <= 65135 ||
        character >= 65281 && character <= 65376 ||     # fullwidth forms
        character >= 127744 && character <= 129791 ||   # pictographs
        character >= 131072 && character <= 262141      # more CJK
}

function end_run() {
    if (run != "") draw(run, run_at, run_end, kind)
    run = ""
    blanks = 0
}

function draw(text, from, to, its_kind) {
    drawn = drawn sprintf("<text x=\"%g\" y=\"%g\" textLength=\"%g\" fill=\"%s\"%s>%s</text>\n",
        margin + from * column, y, (to - from) * column, colour[its_kind],
        its_kind == "command" ? " font-weight=\"bold\"" : "", text)
}
