"""quotes.py ADDRESS PORT SYMBOL: prints five quotes of one symbol."""

import itertools
import sys

import kavquote

with kavquote.Client(sys.argv[1], int(sys.argv[2])) as client:
    client.login("user", "password")
    client.register(sys.argv[3])
    for quote in itertools.islice(client.quotes(30), 5):
        print(quote.UpdateTime, quote.InstrumentID, quote.LastPrice, flush=True)
