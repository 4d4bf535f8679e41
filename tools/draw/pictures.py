#!/usr/bin/env python3
"""pictures.py BIN DIR [PICTURE...]: draws pictures of the README into DIR, all of them or those named, from runs of the
programs in BIN on the simulated board.
  board        the board, and the row of POST that tests each part
  looked-at    which words of the NVRAMs and which sectors of the flash a full run tests
  i2c-read     waveforms: a read of the identity EEPROM
  flash-erase  waveforms: the erase of a sector
  time-line    how long each row takes, and when a power cut loses contents; this one depends on the machine"""
import os
import re
import subprocess
import sys
import tempfile

from svg import svg, text
from time_line import time_line
from waves import flash_erase, i2c_read

NVRAM_WORDS = 16384
FLASH_SECTORS = 512
SECTOR_BYTES = 0x20000
def run(board_sim, log, *options):
    """Output and open bus log of a run."""
    done = subprocess.run([board_sim, '--waits', 'short', '--trace', log, *options], stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True, check=False)
    return done.stdout, open(log, encoding='ascii')


def rows_of(output):
    """The names of the rows, by their middle word."""
    return {name.split()[0]: name for name in re.findall(r'Executing Mod 1 1 (.*?) ?: ', output)}


def tested_words(log, instance):
    """Words that the test gives more than one value, before it restores them."""
    values = {}
    for _, device, kind, _, offset, data in (f[:6] for f in log if f[1] == f'nvram{instance}' and f[2] == 'w'):
        values.setdefault(int(offset, 16) // 2, set()).add(data)
    return {word for word, seen in values.items() if len(seen) > 1}


def tested_sectors(log):
    """Sectors that a write-buffer load is for."""
    return {int(f[4], 16) // SECTOR_BYTES for f in log if f[1] == 'flash' and f[2] == 'w' and f[5] == '0x25'}


def cells(x, y, across, size, count, marked):
    """A field of squares: a light ground, and one run of marked squares a rectangle."""
    parts = [f'<rect x="{x}" y="{y}" width="{across * size}" height="{count // across * size}" class="k"/>']
    for row in range(count // across):
        column = 0
        while column < across:
            length = 0
            while column + length < across and row * across + column + length in marked:
                length += 1
            if length:
                parts.append(f'<rect x="{x + column * size}" y="{y + row * size}" width="{length * size}" '
                             f'height="{size}" class="t"/>')
            column += length + 1
    return parts


def looked_at(log):
    parts = []
    for instance in range(3):
        words = tested_words(log, instance)
        x = 20 + instance * 220
        parts += [text(x, 30, f'NVRAM {instance}'), *cells(x, 40, 128, 1.5, NVRAM_WORDS, words),
                  text(x, 252, f'{len(words)} of {NVRAM_WORDS} words', 's')]
    sectors = tested_sectors(log)
    parts += [text(690, 30, 'Flash'), *cells(690, 40, 32, 6, FLASH_SECTORS, sectors),
              text(690, 252, f'{len(sectors)} of {FLASH_SECTORS} sectors', 's'),
              text(20, 280, 'Dark: tested in a full run. Light: read and restored at most, or not touched. '
                            'Addresses go up from left to right, then from top to bottom.', 's')]
    return svg(900, 295, parts)


def board(rows):
    """Boxes in two columns; a line of each leads to the processor."""
    parts_of_board = [('identity EEPROM', 'bus 1, address 0x52: supervisor, backplane', 'SEEPROM'),
                      ('Ethernet controllers', 'eth0, eth5; on some cards eth1, eth2', 'GigE'),
                      ('local-bus bridge, 3 NVRAMs', '32 KB each: the lower half', 'NVRAM'),
                      ('NOR flash', '64 MB: 19 sectors', 'OBFL'),
                      ('PCI functions', 'the first six of the card', 'PCIE'),
                      ('sensors, fans, power supplies', '', '')]
    parts = ['<rect x="20" y="60" width="150" height="340" class="b"/>', text(45, 220, 'supervisor'),
             text(45, 240, 'processor')]
    for number, (name, detail, row) in enumerate(parts_of_board):
        y = 60 + number * 60
        parts += [f'<path d="M170 {y + 20}H260" class="w"/>',
                  f'<rect x="260" y="{y}" width="300" height="40" class="b"/>',
                  text(270, y + 17, name), text(270, y + 33, detail, 's'),
                  text(580, y + 25, rows[row] if row else 'no row of POST', '' if row else 's')]
    return svg(760, 420, [text(260, 40, 'Part'), text(580, 40, 'Tested by'), *parts])


def main():
    bin_dir, to, *wanted = sys.argv[1:]
    board_sim, pictures = os.path.join(bin_dir, 'board-sim'), {}
    with tempfile.TemporaryDirectory() as here:
        output, lines = run(board_sim, os.path.join(here, 'log'))
        with lines:
            if 'Completed Successfully' not in output:
                sys.exit('tools/pictures: the run did not pass')
            log = [line.split() for line in lines if ' w ' in line and ('nvram' in line or ' 0x25' in line)]
        pictures['board'], pictures['looked-at'] = board(rows_of(output)), looked_at(log)
        # The flash's test ends with its second sector.
        _, waves = run(board_sim, os.path.join(here, 'log.vcd'), '--fault', 'flash-erase-hangs sector=0')
        with waves:
            pictures['i2c-read'] = i2c_read(waves)
            waves.seek(0)
            pictures['flash-erase'] = flash_erase(waves)
        if not wanted or 'time-line' in wanted:
            pictures['time-line'] = time_line(board_sim, here)
    for name in wanted or pictures:
        with open(os.path.join(to, name + '.svg'), 'w', encoding='utf-8') as file:
            file.write(pictures[name])


main()
