// Giving up a chain.
#ifndef TARNIX_CHAIN_ANCHOR_CLEARING_H
#define TARNIX_CHAIN_ANCHOR_CLEARING_H

// Takes the chain's anchor away: 24 zero bytes in misc, and the property that says so. For a chain
// whose blocks are no longer the map file's. Failures are not reported: the next run goes by what
// is in misc then.
void clear_anchor();

#endif
