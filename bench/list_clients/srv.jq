def digit: if . < 10 then 48 + . else 87 + . end;
def hex: [(. / 4096 | floor), (. / 256 | floor) % 16, (. / 16 | floor) % 16, . % 16]
    | map(digit) | implode;

.servers | sort_by(.id)[]
| "\(.id) - \(.host):\(.port) - \(.state)",
  (.devices | sort_by(.id)[]
   | " \(.id)\t\(.vid | hex):\(.pid | hex):\(.rev | hex)\t\(.port)\t\(.name) /\(.state)\(
       if .serial == "" then "" else ", " + .serial end)/")
