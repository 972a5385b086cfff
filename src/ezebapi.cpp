/* The exported functions: a wall of forwards in the order of the header. Nothing is decided here; each calls
 * the function of its own name with the internal prefix. Only where one internal function serves several
 * exports are arguments filled in. */
#include "zeb.h"

#include "ezebbodyblock.h"
#include "ezeblogicaladdr.h"
#include "ezebnotification.h"
#include "ezebproplist.h"
#include "ezebpublisher.h"
#include "ezebrpc.h"
#include "ezebruntime.h"
#include "ezebstream.h"
#include "ezebsubscriber.h"

enum { CONNECTION_WAIT_MS = 5000 };

void zeb_get_tiername(char **tiername)
{
    ezeb_get_tiername(tiername);
}

void zeb_get_instancename(char **instancename)
{
    ezeb_get_instancename(instancename);
}

int32_t zeb_shutdown_nowait(void)
{
    return ezeb_shutdown(0);
}

int32_t zeb_shutdown(void)
{
    return ezeb_shutdown(1);
}

int32_t zeb_init(void)
{
    return ezeb_init(nullptr, 0);
}

int32_t zeb_init_wtambekhome(const char *home)
{
    return ezeb_init(home, 0);
}

int32_t zeb_init_with_port(int32_t port)
{
    return ezeb_init(nullptr, port);
}

int32_t zeb_proplist_count(const zeb_proplist *list)
{
    return ezeb_proplist_count(list);
}

const char *zeb_proplist_get(const zeb_proplist *list, const char *name)
{
    return ezeb_proplist_get(list, name);
}

zeb_property *zeb_proplist_getIndex(const zeb_proplist *list, int32_t index)
{
    return ezeb_proplist_getIndex(list, index);
}

zeb_property *zeb_proplist_put(zeb_proplist *list, const char *name, const char *value)
{
    return ezeb_proplist_put(list, name, value);
}

void zeb_proplist_destroy(zeb_proplist **list)
{
    ezeb_proplist_destroy(list);
}

zeb_proplist *zeb_proplist_create(void)
{
    return ezeb_proplist_create();
}

uint32_t zeb_notification_getClass(const zeb_notification *n)
{
    return ezeb_notification_getClass(n);
}

void zeb_notification_setLocalOnly(zeb_notification *n)
{
    ezeb_notification_setLocalOnly(n);
}

char *zeb_notification_toString(zeb_notification *n, int32_t bodyFormat)
{
    return ezeb_notification_toString(n, bodyFormat);
}

void zeb_notification_print(zeb_notification *n)
{
    ezeb_notification_print(n);
}

const char *zeb_notification_type(const zeb_notification *n)
{
    return ezeb_notification_type(n);
}

int32_t zeb_notification_localOnly(const zeb_notification *n)
{
    return ezeb_notification_localOnly(n);
}

const char *zeb_notification_instanceName(const zeb_notification *n)
{
    return ezeb_notification_instanceName(n);
}

const char *zeb_notification_id(const zeb_notification *n)
{
    return ezeb_notification_id(n);
}

zeb_property *zeb_notification_getAllProperties(const zeb_notification *n, int32_t *count)
{
    return ezeb_notification_getAllProperties(n, count);
}

const char *zeb_notification_getProperty(const zeb_notification *n, const char *name)
{
    return ezeb_notification_getProperty(n, name);
}

const char *zeb_notification_stamp(const zeb_notification *n)
{
    return ezeb_notification_stamp(n);
}

const char *zeb_notification_generatingProcess(const zeb_notification *n)
{
    return ezeb_notification_generatingProcess(n);
}

const char *zeb_notification_generatingNode(const zeb_notification *n)
{
    return ezeb_notification_generatingNode(n);
}

const char *zeb_notification_generatingComponent(const zeb_notification *n)
{
    return ezeb_notification_generatingComponent(n);
}

int64_t zeb_notification_deliveryTime(const zeb_notification *n)
{
    return ezeb_notification_deliveryTime(n);
}

int64_t zeb_notification_creationTime(const zeb_notification *n)
{
    return ezeb_notification_creationTime(n);
}

const void *zeb_notification_body(const zeb_notification *n, int32_t *length)
{
    return ezeb_notification_body(n, length);
}

const char *zeb_notification_affectedNodes(const zeb_notification *n)
{
    return ezeb_notification_affectedNodes(n);
}

const char *zeb_notification_affectedComponents(const zeb_notification *n)
{
    return ezeb_notification_affectedComponents(n);
}

zeb_outstream *zeb_notification_getOutputStream(zeb_notification *n)
{
    return ezeb_notification_getOutputStream(n);
}

zeb_instream *zeb_notification_getInputStream(const zeb_notification *n)
{
    return ezeb_notification_getInputStream(n);
}

zeb_laddrlist *zeb_notification_getMembersRemoved(const zeb_notification *n)
{
    return ezeb_notification_getMembersRemoved(n);
}

zeb_laddrlist *zeb_notification_getMembersAdded(const zeb_notification *n)
{
    return ezeb_notification_getMembersAdded(n);
}

zeb_laddrlist *zeb_notification_obtainMemberList(const zeb_notification *n)
{
    return ezeb_notification_obtainMemberList(n);
}

int32_t zeb_notification_isMembership(const zeb_notification *n)
{
    return ezeb_notification_isMembership(n);
}

zeb_logicaladdr *zeb_notification_generatingAddress(const zeb_notification *n)
{
    return ezeb_notification_generatingAddress(n);
}

zeb_laddrlist *zeb_notification_getDestinationAddrs(const zeb_notification *n)
{
    return ezeb_notification_getDestinationAddrs(n);
}

void zeb_notification_setDestinationAddr(zeb_notification *n, const zeb_logicaladdr *address)
{
    ezeb_notification_setDestinationAddr(n, address);
}

void zeb_notification_setDestinationAddrs(zeb_notification *n, const zeb_laddrlist *addresses)
{
    ezeb_notification_setDestinationAddrs(n, addresses);
}

int32_t zeb_notification_setProperty(zeb_notification *n, const char *name, const char *value)
{
    return ezeb_notification_setProperty(n, name, value);
}

zeb_notification *zeb_notification_createstream(const char *type)
{
    return ezeb_notification_createstream(type);
}

zeb_notification *zeb_notification_create(const char *type, const void *body, int32_t bodyLength)
{
    return ezeb_notification_create(type, body, bodyLength);
}

void zeb_outstream_close(zeb_outstream **stream)
{
    ezeb_outstream_close(stream);
}

int32_t zeb_outstream_flush(zeb_outstream *stream)
{
    return ezeb_outstream_flush(stream);
}

int32_t zeb_outstream_write(zeb_outstream *stream, const void *data, int32_t length)
{
    return ezeb_outstream_write(stream, data, length);
}

void zeb_instream_close(zeb_instream **stream)
{
    ezeb_instream_close(stream);
}

int32_t zeb_instream_read(zeb_instream *stream, void *buffer, int32_t length)
{
    return ezeb_instream_read(stream, buffer, length);
}

int32_t zeb_one_time_remote_publish(void)
{
    return -1;
}

int32_t zeb_one_time_publish(const char *component, zeb_notification *n)
{
    return ezeb_one_time_publish(component, n);
}

void zeb_publisher_publish(zeb_publisher *publisher, zeb_notification *n)
{
    ezeb_publisher_publish(publisher, n);
}

void zeb_publisher_close(zeb_publisher *publisher)
{
    ezeb_publisher_close(publisher);
}

zeb_publisher *zeb_publisher_create(const char *component)
{
    return ezeb_publisher_create(component, 0, 1, CONNECTION_WAIT_MS);
}

void zeb_subscriber_returnState(zeb_subscriber *subscriber, const void *body, uint32_t length)
{
    ezeb_subscriber_returnState(subscriber, body, length);
}

int32_t zeb_subscriber_getState(zeb_subscriber *subscriber)
{
    return ezeb_subscriber_getState(subscriber);
}

zeb_subscriber *zeb_subscriber_multirecv(zeb_subscriberlist *list, int32_t wait, int32_t timeout)
{
    return ezeb_subscriber_multirecv(list, wait, timeout);
}

int32_t zeb_subscriber_cancelcallback(zeb_subscriber *subscriber)
{
    return ezeb_subscriber_cancelcallback(subscriber);
}

int32_t zeb_subscriber_registercallback(zeb_subscriber *subscriber, zeb_subscriber_callback callback,
                                        void *context, int32_t mode)
{
    return ezeb_subscriber_registercallback(subscriber, callback, context, mode);
}

const char *zeb_subscriber_getName(zeb_subscriber *subscriber)
{
    return ezeb_subscriber_getName(subscriber);
}

const char *zeb_subscriber_setName(zeb_subscriber *subscriber, const char *name)
{
    return ezeb_subscriber_setName(subscriber, name);
}

const char *zeb_subscriber_subscription(const zeb_subscriber *subscriber)
{
    return ezeb_subscriber_subscription(subscriber);
}

void zeb_subscriber_relinquish(zeb_subscriber *subscriber, zeb_notification *n)
{
    ezeb_subscriber_relinquish(subscriber, n);
}

/* Threads that receive in a loop may begin once more while another one ends the runtime, which releases the
 * subscriber when the last call inside has left. Without a runtime there is nothing to receive in any case.
 */
zeb_notification *zeb_subscriber_receive(zeb_subscriber *subscriber, int32_t wait, int32_t timeout)
{
    const ezeb_runtime_ref rt;
    return rt ? ezeb_subscriber_receive(subscriber, wait, timeout) : nullptr;
}

uint32_t zeb_subscriber_id(const zeb_subscriber *subscriber)
{
    return ezeb_subscriber_id(subscriber);
}

zeb_publisher *zeb_subscriber_getPublisher(const zeb_subscriber *subscriber)
{
    return ezeb_subscriber_getPublisher(subscriber);
}

const char *zeb_subscriber_component(const zeb_subscriber *subscriber)
{
    return ezeb_subscriber_component(subscriber);
}

void zeb_subscriber_close(zeb_subscriber *subscriber)
{
    ezeb_subscriber_close(subscriber);
}

int32_t zeb_subscriber_status(zeb_subscriber *subscriber, char **statusMessageOut)
{
    return ezeb_subscriber_status(subscriber, statusMessageOut);
}

zeb_subscriber *zeb_subscriber_create_async(const char *subscription, const char *component,
                                            const char *membershipInterest, const zeb_proplist *properties)
{
    return ezeb_subscriber_create(subscription, component, membershipInterest, properties, 0, nullptr, 0, -1);
}

zeb_subscriber *zeb_subscriber_create_wdeltas(const char *subscription, const char *component,
                                              const char *membershipInterest, const zeb_proplist *properties,
                                              char **statusMessageOut)
{
    return ezeb_subscriber_create(subscription, component, membershipInterest, properties, 1,
                                  statusMessageOut, 1, -1);
}

zeb_subscriber *zeb_subscriber_create(const char *subscription, const char *component,
                                      const char *membershipInterest, const zeb_proplist *properties,
                                      char **statusMessageOut)
{
    return ezeb_subscriber_create(subscription, component, membershipInterest, properties, 0,
                                  statusMessageOut, 1, -1);
}

zeb_subscriber *zeb_subscriber_create_wtimeout(const char *subscription, const char *component,
                                               const char *membershipInterest, const zeb_proplist *properties,
                                               char **statusMessageOut, int64_t timeout)
{
    return ezeb_subscriber_create(subscription, component, membershipInterest, properties, 0,
                                  statusMessageOut, 1, timeout);
}

void zeb_subscriberlist_destroy(zeb_subscriberlist **list)
{
    ezeb_subscriberlist_destroy(list);
}

void zeb_subscriberlist_add(zeb_subscriberlist *list, zeb_subscriber *subscriber)
{
    ezeb_subscriberlist_add(list, subscriber);
}

zeb_subscriberlist *zeb_subscriberlist_create(void)
{
    return ezeb_subscriberlist_create();
}

void zeb_laddrlist_add(zeb_laddrlist *list, const zeb_logicaladdr *address)
{
    ezeb_laddrlist_add(list, address);
}

zeb_logicaladdr *zeb_laddrlist_get(const zeb_laddrlist *list, int32_t index)
{
    return ezeb_laddrlist_get(list, index);
}

int32_t zeb_laddrlist_count(const zeb_laddrlist *list)
{
    return ezeb_laddrlist_count(list);
}

void zeb_laddrlist_destroy(zeb_laddrlist **list)
{
    ezeb_laddrlist_destroy(list);
}

zeb_laddrlist *zeb_laddrlist_dup(const zeb_laddrlist *list)
{
    return ezeb_laddrlist_dup(list);
}

zeb_laddrlist *zeb_laddrlist_create(void)
{
    return ezeb_laddrlist_create();
}

char *zeb_logicaladdr_toString(const zeb_logicaladdr *address)
{
    return ezeb_logicaladdr_toString(address);
}

const char *zeb_logicaladdr_getProperty(const zeb_logicaladdr *address, const char *name)
{
    return ezeb_logicaladdr_getProperty(address, name);
}

zeb_property *zeb_logicaladdr_getPropertyIndex(const zeb_logicaladdr *address, int32_t index)
{
    return ezeb_logicaladdr_getPropertyIndex(address, index);
}

int32_t zeb_logicaladdr_getPropertyCount(const zeb_logicaladdr *address)
{
    return ezeb_logicaladdr_getPropertyCount(address);
}

int32_t zeb_logicaladdr_equals(const zeb_logicaladdr *a, const zeb_logicaladdr *b)
{
    return ezeb_logicaladdr_equals(a, b);
}

const char *zeb_logicaladdr_getTierId(const zeb_logicaladdr *address)
{
    return ezeb_logicaladdr_getTierId(address);
}

const char *zeb_logicaladdr_getTier(const zeb_logicaladdr *address)
{
    return ezeb_logicaladdr_getTier(address);
}

const char *zeb_logicaladdr_getSubscription(const zeb_logicaladdr *address)
{
    return ezeb_logicaladdr_getSubscription(address);
}

const char *zeb_logicaladdr_getInstanceName(const zeb_logicaladdr *address)
{
    return ezeb_logicaladdr_getInstanceName(address);
}

const char *zeb_logicaladdr_getHostName(const zeb_logicaladdr *address)
{
    return ezeb_logicaladdr_getHostName(address);
}

const char *zeb_logicaladdr_getComponent(const zeb_logicaladdr *address)
{
    return ezeb_logicaladdr_getComponent(address);
}

char *zeb_bb_toString(const zeb_bb *block)
{
    return ezeb_bb_toString(block);
}

zeb_bb_elem *zeb_bb_elemlist_getnext(const zeb_bb_elem *element)
{
    return ezeb_bb_elemlist_getnext(element);
}

zeb_bb_elem *zeb_bb_elemlist_getfirst(const zeb_bb_elemlist *elements)
{
    return ezeb_bb_elemlist_getfirst(elements);
}

zeb_bb_seg *zeb_bb_seglist_getnext(const zeb_bb_seg *segment)
{
    return ezeb_bb_seglist_getnext(segment);
}

zeb_bb_seg *zeb_bb_seglist_getfirst(const zeb_bb_seglist *segments)
{
    return ezeb_bb_seglist_getfirst(segments);
}

const char *zeb_bb_elem_getvalue(const zeb_bb_elem *element, int32_t *length)
{
    return ezeb_bb_elem_getvalue(element, length);
}

const char *zeb_bb_elem_getname(const zeb_bb_elem *element)
{
    return ezeb_bb_elem_getname(element);
}

zeb_bb_elem *zeb_bb_seg_addelement_b(zeb_bb_seg *segment, const char *name, const void *value, int32_t length)
{
    return ezeb_bb_seg_addelement_b(segment, name, value, length);
}

zeb_bb_elem *zeb_bb_seg_addelement(zeb_bb_seg *segment, const char *name, const char *value)
{
    return ezeb_bb_seg_addelement(segment, name, value);
}

const char *zeb_bb_seg_getelement(const zeb_bb_seg *segment, const char *name, int32_t *length)
{
    return ezeb_bb_seg_getelement(segment, name, length);
}

zeb_bb_elemlist *zeb_bb_seg_getelements(zeb_bb_seg *segment)
{
    return ezeb_bb_seg_getelements(segment);
}

zeb_bb_seg *zeb_bb_seg_addsegment(zeb_bb_seg *segment, const char *name)
{
    return ezeb_bb_seg_addsegment(segment, name);
}

zeb_bb_seg *zeb_bb_seg_getsegment(const zeb_bb_seg *segment, const char *name)
{
    return ezeb_bb_seg_getsegment(segment, name);
}

zeb_bb_seglist *zeb_bb_seg_getsegments(zeb_bb_seg *segment)
{
    return ezeb_bb_seg_getsegments(segment);
}

const char *zeb_bb_seg_getname(const zeb_bb_seg *segment)
{
    return ezeb_bb_seg_getname(segment);
}

zeb_bb_seg *zeb_bb_addsegment(zeb_bb *block, const char *name)
{
    return ezeb_bb_addsegment(block, name);
}

zeb_bb_seg *zeb_bb_getsegment(const zeb_bb *block, const char *name)
{
    return ezeb_bb_getsegment(block, name);
}

zeb_bb_seglist *zeb_bb_getsegments(zeb_bb *block)
{
    return ezeb_bb_getsegments(block);
}

zeb_bb *zeb_bb_body2block(const void *body, int32_t length)
{
    return ezeb_bb_body2block(body, length);
}

void *zeb_bb_block2body(const zeb_bb *block, int32_t *length)
{
    return ezeb_bb_block2body(block, length);
}

void zeb_bb_destroy(zeb_bb *block)
{
    ezeb_bb_destroy(block);
}

zeb_bb *zeb_bb_create(void)
{
    return ezeb_bb_create();
}

int32_t zeb_rpcrequest_sendprogress(zeb_rpcrequest *request, const void *data, int32_t length)
{
    return ezeb_rpcrequest_sendprogress(request, data, length);
}

int32_t zeb_rpcrequest_sendresult(zeb_rpcrequest *request, const void *data, int32_t length)
{
    return ezeb_rpcrequest_sendresult(request, data, length);
}

const char *zeb_rpcrequest_getrpcname(const zeb_rpcrequest *request)
{
    return ezeb_rpcrequest_getrpcname(request);
}

void zeb_rpcserver_destroy(zeb_rpcserver **server)
{
    ezeb_rpcserver_destroy(server);
}

int32_t zeb_rpcserver_shutdown(zeb_rpcserver *server)
{
    return ezeb_rpcserver_shutdown(server);
}

int32_t zeb_rpcserver_isrunning(const zeb_rpcserver *server)
{
    return ezeb_rpcserver_isrunning(server);
}

int32_t zeb_rpcserver_launch(zeb_rpcserver *server)
{
    return ezeb_rpcserver_launch(server);
}

int32_t zeb_rpcserver_setaddrprops(zeb_rpcserver *server, const zeb_proplist *properties)
{
    return ezeb_rpcserver_setaddrprops(server, properties);
}

int32_t zeb_rpcserver_setcbmode(zeb_rpcserver *server, int32_t mode)
{
    return ezeb_rpcserver_setcbmode(server, mode);
}

int32_t zeb_rpcserver_addfunc(zeb_rpcserver *server, const char *name, zeb_rpcserver_function function)
{
    return ezeb_rpcserver_addfunc(server, name, function);
}

zeb_rpcserver *zeb_rpcserver_create(const char *name, const char *component)
{
    return ezeb_rpcserver_create(name, component);
}

int32_t zeb_rpcrequest_senderror(zeb_rpcrequest *request, int32_t code, const char *message)
{
    return ezeb_rpcrequest_senderror(request, code, message);
}

void zeb_rpcresponse_destroy(zeb_rpcresponse **response)
{
    ezeb_rpcresponse_destroy(response);
}

int32_t zeb_rpcresponse_isresult(const zeb_rpcresponse *response)
{
    return ezeb_rpcresponse_isresult(response);
}

const void *zeb_rpcresponse_getdata(const zeb_rpcresponse *response, int32_t *length)
{
    return ezeb_rpcresponse_getdata(response, length);
}

zeb_logicaladdr *zeb_rpcresponse_getaddr(const zeb_rpcresponse *response)
{
    return ezeb_rpcresponse_getaddr(response);
}

void zeb_rpcinvocation_destroy(zeb_rpcinvocation **invocation)
{
    ezeb_rpcinvocation_destroy(invocation);
}

int32_t zeb_rpcinvocation_isdone(zeb_rpcinvocation *invocation)
{
    return ezeb_rpcinvocation_isdone(invocation);
}

zeb_rpcresponse *zeb_rpcinvocation_getresponse(zeb_rpcinvocation *invocation, int32_t wait, int32_t timeout)
{
    return ezeb_rpcinvocation_getresponse(invocation, wait, timeout);
}

void zeb_rpcclient_destroy(zeb_rpcclient **client)
{
    ezeb_rpcclient_destroy(client);
}

zeb_rpcinvocation *zeb_rpcclient_invoke_wcallback(zeb_rpcclient *client, const char *function,
                                                  const zeb_laddrlist *servers, const void *data,
                                                  int32_t length, zeb_rpcclient_callback callback,
                                                  void *context)
{
    return ezeb_rpcclient_invoke_wcallback(client, function, servers, data, length, callback, context);
}

zeb_rpcinvocation *zeb_rpcclient_invoke(zeb_rpcclient *client, const char *function,
                                        const zeb_laddrlist *servers, const void *data, int32_t length)
{
    return ezeb_rpcclient_invoke(client, function, servers, data, length);
}

zeb_laddrlist *zeb_rpcclient_getservers(zeb_rpcclient *client, const char *server)
{
    return ezeb_rpcclient_getservers(client, server);
}

void zeb_rpclient_register_callback(void)
{
    ezeb_rpclient_register_callback();
}

zeb_rpcclient *zeb_rpcclient_create(const char *const *servers, int32_t count, const char *component)
{
    return ezeb_rpcclient_create(servers, count, component);
}

zeb_laddrlist *zeb_rpcclient_getservers_wtimeout(zeb_rpcclient *client, const char *server, int32_t wait,
                                                 int32_t timeout)
{
    return ezeb_rpcclient_getservers_wtimeout(client, server, wait, timeout);
}

const char *zeb_rpcresponse_geterror(const zeb_rpcresponse *response, int32_t *code)
{
    return ezeb_rpcresponse_geterror(response, code);
}
