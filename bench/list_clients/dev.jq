def digit: if . < 10 then 48 + . else 87 + . end;
def hex: [(. / 4096 | floor), (. / 256 | floor) % 16, (. / 16 | floor) % 16, . % 16]
    | map(digit) | implode;

[.servers[] | .id as $server | .devices[] | {server: $server, device: .}]
| sort_by(.server, .device.id)[]
| .server as $server | .device
| "\($server):\(.id) - \(.vid | hex):\(.pid | hex):\(.rev | hex) - \(.name), \(.port)\(
    if .serial == "" then "" else ", " + .serial end), \(.state)"
