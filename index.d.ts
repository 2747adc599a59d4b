// Type declarations of the callback API: require('kwnode'). The reference,
// with every outcome and quirk, is docs/api.md.
/// <reference types="node" />

/** Event codes: `KWNodeEvent#eventCode()`. */
export declare const EventCode: {
  /** A connection-state change; `eventSubCode()` is the new {@link ConnectionState}. */
  readonly CONNECTION_STATE: 1;
  /** A runtime error; `what()` is its text, `eventSubCode()` its code (0 if none). */
  readonly RUNTIME_ERROR: 2;
};
export type EventCode = (typeof EventCode)[keyof typeof EventCode];

/** Connection states: `getConnectionState()` and the sub-code of a connection-state event. */
export declare const ConnectionState: {
  readonly DISCONNECTED: 1;
  /** The broker was lost and the library is reconnecting. */
  readonly CONNECTING: 2;
  readonly CONNECTED: 3;
  /** The connect attempt failed (refused login, bad VPN, certificate check...). */
  readonly FAILED: 4;
};
export type ConnectionState = (typeof ConnectionState)[keyof typeof ConnectionState];

/** Quality of service: 1 at most once (topics), 2 guaranteed (queues). Any other number reads as 1. */
export declare const QoS: {
  readonly AT_MOST_ONCE: 1;
  readonly GUARANTEED: 2;
};
export type QoS = (typeof QoS)[keyof typeof QoS];

/** The only destination type there is. */
export type DestinationType = 'SOLACE';

/** Values of `use_ssl` that switch SSL on ("yes", "on", "true", "1", compared as text). */
export type SslOn = true | 1 | 'yes' | 'on' | 'true' | '1';
/** Values of `use_ssl` that leave it off (as does an absent key). */
export type SslOff = false | 0 | 'no' | 'off' | 'false' | '0' | '';

/**
 * Connection data of a "SOLACE" destination. Every own property is passed to
 * the library as text (`port: 55555` becomes "55555"); an empty value of a
 * required key counts as missing and fails construction with
 * "invalid destination '<id>', missing parameter '<key>'".
 */
export interface ConnectionData {
  /** Broker host name. Required. */
  host: string;
  /** Broker port, kept as text. Required. */
  port: number | string;
  /** Message VPN. Required. */
  vpn: string;
  /** Default empty. */
  user?: string;
  /** Default empty. */
  password?: string;
  /** "tcps" with certificate validation when on, else "tcp". */
  use_ssl?: SslOn | SslOff;
  /** Directory of trusted certificates, read when use_ssl is on. Default empty. */
  trust_store?: string;
}

/** What a completion function receives on failure. */
export interface CompletionError extends Error {
  /** 1 for every failed or rejected send; the library's sub-code for a failed subscription. */
  errno: number;
}

/** What a library failure thrown synchronously by a method carries (after a line on standard error). */
export interface LibraryError extends Error {
  code: number;
}

/** Completion function: `null` on success, an Error with `errno` on failure. */
export type DoneCallback = (err: CompletionError | null) => void;
export type MessageHandler = (message: KWNodeMessage) => void;
export type EventCallback = (event: KWNodeEvent) => void;
/** A string (sent as UTF-8) or bytes (any ArrayBuffer view: Buffer, typed array, DataView; or a whole ArrayBuffer), copied at the call. */
export type Payload = string | ArrayBufferView | ArrayBuffer;

export declare class KWNodeClient {
  /**
   * A client for one destination; nothing is connected yet. Argument errors
   * throw "Messaging Client Initialization: ..."; a library failure throws a
   * {@link LibraryError}.
   */
  constructor(destinationId: string | number, destinationType: DestinationType,
    connectionData: ConnectionData, eventCallback?: EventCallback);

  /** Starts connecting and returns at once; the outcome arrives as a connection-state event. */
  connect(): void;
  /** Disconnects; an event with state 1 follows unless already disconnected. */
  disconnect(): void;
  getConnectionState(): ConnectionState;

  /** At most once to a topic; done (if given) when the library has taken it or failed. */
  publish(topic: string, payload: Payload): void;
  publish(topic: string, payload: Payload, done: DoneCallback): void;
  /** qos 2 sends to the queue named by `topic`; done when the broker has acknowledged or rejected it. */
  publish(topic: string, qos: QoS, payload: Payload): void;
  publish(topic: string, qos: QoS, payload: Payload, done: DoneCallback): void;

  /** Re-sends a received message to another topic (or queue with qos 2); success acknowledges the original. */
  forward(topic: string, message: KWNodeMessage): void;
  forward(topic: string, message: KWNodeMessage, done: DoneCallback): void;
  forward(topic: string, qos: QoS, message: KWNodeMessage): void;
  forward(topic: string, qos: QoS, message: KWNodeMessage, done: DoneCallback): void;

  /** A topic subscription, at most once. done (if given) once the broker has confirmed or refused. */
  subscribe(topic: string, handler: MessageHandler): void;
  subscribe(topic: string, handler: MessageHandler, done: DoneCallback): void;
  /**
   * The QoS form takes exactly four arguments: `subscribe(name, 2, handler)`
   * reads 2 as the handler and throws. With qos 2 `name` is a queue, and
   * done is called only on failure (never on success; `null` then means the
   * flow could not be started).
   */
  subscribe(topic: string, qos: QoS, handler: MessageHandler, done: DoneCallback | null | undefined): void;

  /** Topic: done on success or failure. Queue (qos 2): done only on failure. Unknown name: never. */
  unsubscribe(topic: string): void;
  unsubscribe(topic: string, done: DoneCallback): void;
  unsubscribe(topic: string, qos: QoS, done?: DoneCallback): void;
}

/** A received message. A script-made `new KWNodeMessage()` holds none and its methods throw. */
export declare class KWNodeMessage {
  constructor();
  /** Settles a queue message at the broker; a no-op for topic messages. */
  acknowledge(): void;
  /** The topic, or the queue name for a queue message. */
  topic(): string;
  /** A new Buffer over the message's bytes on every call (zero copy over 4 KiB, else copied once; empty payload: length 0). */
  payload(): Buffer;
  /** True for messages of a qos 2 queue subscription. */
  isAckRequired(): boolean;
  /** Always false, even for redelivered messages. */
  isRedelivered(): boolean;
  qos(): QoS;
}

/** What the event callback receives. A script-made `new KWNodeEvent()` reads 0, 0, "" and null. */
export declare class KWNodeEvent {
  constructor();
  eventCode(): EventCode | 0;
  /** The {@link ConnectionState} for code 1; the error's code (0 if none) for code 2. */
  eventSubCode(): number;
  /** The runtime error's text; empty for connection-state events. */
  what(): string;
  /** Always null for the events the client raises. */
  message(): KWNodeMessage | null;
}
