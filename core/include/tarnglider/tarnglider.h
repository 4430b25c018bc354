/* The whole library in one include. */
#ifndef TARNGLIDER_TARNGLIDER_H
#define TARNGLIDER_TARNGLIDER_H

#include <tarnglider/clipboard.h>
#include <tarnglider/clock.h>
#include <tarnglider/conn.h>
#include <tarnglider/conn_addr.h>
#include <tarnglider/conn_client.h>
#include <tarnglider/conn_host.h>
#include <tarnglider/conn_lists.h>
#include <tarnglider/conn_relay.h>
#include <tarnglider/fec.h>
#include <tarnglider/netsock.h>
#include <tarnglider/protocol.h>
#include <tarnglider/rendezvous.h>
#include <tarnglider/secure.h>
#include <tarnglider/secure_pair.h>
#include <tarnglider/video_transport.h>

#endif
