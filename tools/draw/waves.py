"""Two pictures of waveforms (board-sim --trace FILE.vcd, whose time is that of the buses): the first read of the identity
EEPROM, and the first erase of a flash sector."""
from svg import path, svg, text

LEFT = 90
WIDTH = 900
FLASH_CYCLE = 5  # ticks
SECTOR_BYTES = 0x20000


def states_of(vcd, names):
    """Each tick at which a wire with one of these names changes, with all their levels from then on."""
    wires, now, tick, changed = {}, {}, 0, False
    for line in vcd:
        if line.startswith('$var wire'):
            wires[line.split()[3]] = line.split()[4]
        elif line[0] == '#':
            if changed:
                yield tick, dict(now)
            tick, changed = int(line[1:]), False
        elif line[0] in '01' and wires.get(line[1:].strip()) in names:
            now[wires[line[1:].strip()]] = line[0] == '1'
            changed = True


class drawing:
    """The wires of some states below each other, their names on the left."""

    def __init__(self, states, title):
        self.states, self.first = states, states[0][0]
        self.step = (WIDTH - LEFT) / (states[-1][0] - self.first)
        self.parts = [text(20, 20, title, 's')]

    def x(self, tick):
        return round(LEFT + (tick - self.first) * self.step, 1)

    def wire(self, y, label, name):
        points = []
        for tick, now in self.states:
            row = y if now[name] else y + 20
            if points and row != points[-1][1]:
                points.append((self.x(tick), points[-1][1]))
            if not points or row != points[-1][1]:
                points.append((self.x(tick), row))
        points.append((WIDTH, points[-1][1]))
        self.parts += [text(LEFT - 10, y + 15, label, 'e'), path(points)]

    def values(self, y, label, spans):
        """A bus: a box with a text for each (tick, tick, text)."""
        self.parts.append(text(LEFT - 10, y + 15, label, 'e'))
        for begin, end, words in spans:
            left, right = self.x(begin), self.x(end)
            self.parts += [path([(left, y + 10), (left + 4, y), (right - 4, y), (right, y + 10), (right - 4, y + 20),
                                 (left + 4, y + 20), (left, y + 10)]), text((left + right) / 2, y + 15, words, 'm s')]

    def marks(self, y, spans):
        self.parts += [text((self.x(begin) + self.x(end)) / 2, y, words, 'm s') for begin, end, words in spans]

    def whole(self, height):
        return svg(WIDTH + 20, height, self.parts)


def i2c_read(vcd):
    """From the first start condition to the second stop condition."""
    scl, sda = 'i2c1_scl', 'i2c1_sda'
    kept, bytes_seen, marks, bits, stops = [], [], [], [], 0
    last = {scl: True, sda: True}
    for tick, now in states_of(vcd, {scl, sda}):
        if last[scl] and now[scl] and last[sda] != now[sda]:
            marks.append((tick, 'stop' if now[sda] else 'start'))
            stops += now[sda]
            bits = []
        elif now[scl] and not last[scl]:
            bits.append((tick, now[sda]))
        if len(bits) == 9:
            byte = sum(level << 7 - place for place, (_, level) in enumerate(bits[:8]))
            words = f'0x{byte:02x}'
            if marks[-1][1] == 'start':
                words = f'0x{byte // 2:02x}, {"read" if byte % 2 else "write"}'
            bytes_seen.append((bits[0][0], bits[7][0], words))
            marks.append((bits[8][0], 'no ack' if bits[8][1] else 'ack'))
            bits = []
        last = now
        if marks:
            kept.append((tick, now))
        if stops == 2:
            break
    picture = drawing([(kept[0][0] - 50, {scl: True, sda: True}), *kept, (kept[-1][0] + 50, last)],
                      'I2C bus 1, 100 kHz: the address of a byte in the identity EEPROM, then the byte')
    picture.wire(80, 'SCL', scl)
    picture.wire(115, 'SDA', sda)
    picture.values(45, 'bytes', bytes_seen)
    for tick, words in marks:
        side = {'start': 's', 'stop': 's e'}.get(words, 's m')
        picture.parts.append(text(picture.x(tick), 155 if 'ack' in words else 172, words, side))
    return picture.whole(185)


def flash_cycles(states):
    """The bus cycles: first and last tick, whether it reads, address, data."""
    begin, reads, last = None, False, states[0][1]
    for tick, now in states:
        if last['flash_ce_n'] and not now['flash_ce_n']:
            begin = tick
        reads = not now['oe_n'] if begin == tick else reads or not now['oe_n']
        if begin is not None and now['flash_ce_n'] and not last['flash_ce_n']:
            address, data = (sum(last[f'{name}{bit}'] << bit for bit in range(count))
                             for name, count in (('a', 26), ('d', 16)))
            yield begin, tick, reads, address, data
        last = now


def flash_erase(vcd):
    """The six cycles of the first sector erase, and the status reads until it is done."""
    names = {'flash_ce_n', 'oe_n', 'we_n', 'flash_ready', *(f'a{bit}' for bit in range(26)),
             *(f'd{bit}' for bit in range(16))}
    states, began, ended = [], None, None
    for tick, now in states_of(vcd, names):
        states.append((tick, now))
        if not now['flash_ready']:
            began = began or tick
        elif began and not ended:
            ended = tick
        if not began:
            states = [state for state in states if state[0] >= tick - 6 * FLASH_CYCLE - 1]
        if ended and tick >= ended + FLASH_CYCLE:
            break
    cycles = list(flash_cycles(states))
    writes = [cycle for cycle in cycles if not cycle[2]]
    reads = [cycle for cycle in cycles if cycle[2]]
    states = [state for state in states if state[0] >= writes[0][0] - 1]
    picture = drawing(states, f'The flash: the six cycles that erase sector {writes[-1][3] // SECTOR_BYTES}, and the '
                              'reads of its status')
    picture.values(45, 'address', [(begin, end, f'0x{address:x}') for begin, end, _, address, _ in cycles])
    picture.values(75, 'data', [(begin, end, f'0x{data:02x}') for begin, end, _, _, data in cycles])
    for place, (label, name) in enumerate((('CE#', 'flash_ce_n'), ('WE#', 'we_n'), ('OE#', 'oe_n'),
                                           ('RY/BY#', 'flash_ready'))):
        picture.wire(110 + 35 * place, label, name)
    picture.marks(265, [(writes[0][0], writes[1][1], 'unlock'), (writes[2][0], writes[2][1], 'set up'),
                        (writes[3][0], writes[4][1], 'unlock'), (writes[5][0], writes[5][1], 'erase'),
                        (reads[0][0], reads[-3][1], 'busy: DQ6 and DQ2 toggle'),
                        (reads[-2][0], reads[-1][1], 'done: erased')])
    return picture.whole(280)
