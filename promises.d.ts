// Type declarations of the promise layer: require('kwnode/promises'). The
// reference, with every outcome and quirk, is docs/api.md.
/// <reference types="node" />
import { EventEmitter } from 'events';
import {
  ConnectionData, ConnectionState, DestinationType, EventCode, KWNodeClient, KWNodeEvent,
  KWNodeMessage, Payload, QoS
} from './index';

export { ConnectionState, EventCode, QoS };

/** Error codes of the layer's own rejections (`err.code`). */
export type LayerErrorCode =
  | 'ABORT_ERR'                     // the signal was aborted (err.name 'AbortError')
  | 'ERR_KWNODE_TIMEOUT'            // options.timeout elapsed
  | 'ERR_KWNODE_CONNECT_FAILED'     // the connection reported state 4
  | 'ERR_KWNODE_DISCONNECTED'       // disconnect() while waiting
  | 'ERR_KWNODE_QUEUE_FULL'         // maxQueued sends already waiting
  | 'ERR_KWNODE_OVERFLOW'           // the iterator's buffer overflowed
  | 'ERR_KWNODE_ALREADY_SUBSCRIBED' // the name is already subscribed through this client
  | 'ERR_KWNODE_NOT_SUBSCRIBED'     // unsubscribe of a name this client does not hold
  | 'ERR_KWNODE_FLOW_START'         // a queue flow was bound but not started
  | 'ERR_KWNODE_FLOW_STOP';         // a queue flow could not be destroyed

export interface LayerError extends Error {
  code: LayerErrorCode;
  /** ERR_KWNODE_OVERFLOW: the buffered messages dropped and the one that found the buffer full. */
  dropped?: number;
}

/** Anything with the AbortSignal surface (AbortController#signal on Node 15+). */
export interface AbortSignalLike {
  readonly aborted: boolean;
  readonly reason?: unknown;
  addEventListener(type: 'abort', listener: () => void): void;
  removeEventListener(type: 'abort', listener: () => void): void;
}

export interface WaitOptions {
  /** Rejects the wait with an AbortError (code ABORT_ERR). */
  signal?: AbortSignalLike;
  /** Rejects the wait with ERR_KWNODE_TIMEOUT after this many milliseconds (0 to 2147483647). */
  timeout?: number;
}

export interface SendOptions extends WaitOptions {
  /** 2: guaranteed, to the queue named by the topic; default 1: at most once, to the topic. */
  qos?: QoS;
}

export interface SubscribeOptions extends SendOptions {
  /** Messages an iterator may hold before the subscription fails with ERR_KWNODE_OVERFLOW (default 1024). */
  highWaterMark?: number;
}

export interface ClientOptions {
  /** Guaranteed sends handed over and not yet answered before further sends wait (default 255). */
  maxInFlight?: number;
  /** Sends that may wait in the layer; beyond it a send rejects at once with ERR_KWNODE_QUEUE_FULL (default 1024). */
  maxQueued?: number;
}

export interface MessageIterator extends AsyncIterableIterator<KWNodeMessage> {
  next(): Promise<IteratorResult<KWNodeMessage, undefined>>;
  /** Ends the iteration (what `break` calls) and unsubscribes. */
  return(): Promise<IteratorResult<KWNodeMessage, undefined>>;
}

export declare class Subscription implements AsyncIterable<KWNodeMessage> {
  private constructor();
  readonly client: Client;
  readonly topic: string;
  readonly qos: QoS;
  /** True once the broker confirmed a topic subscription; stays false for queues (never confirmed). */
  readonly confirmed: boolean;
  readonly highWaterMark: number;
  /** Messages waiting in the iterator's buffer. */
  readonly buffered: number;
  /** Resolves when the subscription ends normally; rejects with the failure that ended it. */
  readonly closed: Promise<void>;
  /** Resolves at once when the subscription has already ended. */
  unsubscribe(options?: WaitOptions): Promise<void>;
  /** The one iterator over the messages (a subscription made without a handler). */
  messages(options?: { signal?: AbortSignalLike }): MessageIterator;
  [Symbol.asyncIterator](): MessageIterator;
}

export declare class Client extends EventEmitter {
  constructor(destinationId: string | number, destinationType: DestinationType,
    connectionData: ConnectionData, options?: ClientOptions);
  /** The callback-API client underneath. */
  readonly native: KWNodeClient;
  readonly maxInFlight: number;
  readonly maxQueued: number;
  readonly state: ConnectionState;
  readonly inFlight: number;
  readonly queued: number;

  /** Resolves in the connected state; rejects on state 4, time-out or abort (the library keeps retrying). */
  connect(options?: WaitOptions): Promise<void>;
  /** Disconnects; sends and connects still waiting in the layer reject with ERR_KWNODE_DISCONNECTED. */
  disconnect(): Promise<void>;
  /** Resolves when the broker acknowledged (qos 2) or the library took the message (qos 1). */
  publish(topic: string, payload: Payload, options?: SendOptions): Promise<void>;
  forward(topic: string, message: KWNodeMessage, options?: SendOptions): Promise<void>;
  /**
   * Topic: resolves once the broker confirmed. Queue (qos 2): resolves at
   * hand-over, as success is never reported; a later failure rejects
   * `closed` and the iterator.
   */
  subscribe(topic: string, handler: (message: KWNodeMessage) => void, options?: SubscribeOptions): Promise<Subscription>;
  subscribe(topic: string, options?: SubscribeOptions): Promise<Subscription>;
  /** Topic: resolves when the broker confirmed. Queue: resolves at hand-over (only failures are reported, as 'requestError'). */
  unsubscribe(topic: string, options?: SendOptions): Promise<void>;

  on(event: 'state', listener: (state: ConnectionState) => void): this;
  on(event: 'runtimeError', listener: (what: string, code: number) => void): this;
  on(event: 'event', listener: (event: KWNodeEvent) => void): this;
  on(event: 'requestError', listener: (err: Error, request: { topic: string; qos: QoS }) => void): this;
  on(event: 'newListener' | 'removeListener', listener: (event: string | symbol, listener: (...args: any[]) => void) => void): this;
  once(event: 'state', listener: (state: ConnectionState) => void): this;
  once(event: 'runtimeError', listener: (what: string, code: number) => void): this;
  once(event: 'event', listener: (event: KWNodeEvent) => void): this;
  once(event: 'requestError', listener: (err: Error, request: { topic: string; qos: QoS }) => void): this;
  once(event: 'newListener' | 'removeListener', listener: (event: string | symbol, listener: (...args: any[]) => void) => void): this;
}

/** A new client, resolved once connected; disconnected again when this rejects. */
export declare function connect(destinationId: string | number, destinationType: DestinationType,
  connectionData: ConnectionData, options?: ClientOptions & WaitOptions): Promise<Client>;
