"""The objects for Kubernetes agree with each other and with the settings in them."""

from __future__ import annotations

from typing import Any, Dict, List

from fleet import Fleet, Object, key_files, variables

# A forwarder that does not end is signalled twice, and the rest of the log is written.
_SECONDS_TO_END = 9


def test_there_is_time_to_leave_and_to_drain(fleet: Fleet) -> None:
    controller = fleet.settings["controller"]
    needed = controller["leave_seconds"] + controller["drain_seconds"] + _SECONDS_TO_END
    assert fleet.pod["terminationGracePeriodSeconds"] > needed


def test_the_pod_is_seen_to_leave_before_it_drains(fleet: Fleet) -> None:
    probe = fleet.container["readinessProbe"]
    seen_after = probe["failureThreshold"] * (probe["periodSeconds"] + probe["timeoutSeconds"])
    assert seen_after < fleet.settings["controller"]["leave_seconds"]


def test_the_others_find_a_new_pod_before_the_next_one_is_replaced(fleet: Fleet) -> None:
    assert fleet.stateful_set["minReadySeconds"] > fleet.settings["lateral"]["resolve_seconds"]


def test_the_container_has_the_ports_of_the_settings(fleet: Fleet) -> None:
    assert {name: (it["containerPort"], it["protocol"]) for name, it in fleet.ports.items()} == {
        "public": (fleet.settings["downstream"]["port"], "UDP"),
        "lateral": (fleet.settings["lateral"]["port"], "UDP"),
        "metrics": (fleet.settings["metrics"]["port"], "TCP")}


def test_the_services_lead_to_the_ports_of_the_container(fleet: Fleet) -> None:
    led_to = {}
    for service in fleet.of_kind("Service"):
        assert service["spec"]["selector"].items() <= fleet.pod_labels.items()
        for port in service["spec"]["ports"]:
            target = fleet.ports[port["targetPort"]]
            assert (port["port"], port["protocol"]) == (target["containerPort"], target["protocol"])
            led_to[port["name"]] = service["metadata"]["name"]
    assert led_to == {"public": "vesk-public", "lateral": "vesk", "metrics": "vesk"}


def test_the_public_service_keeps_the_addresses_of_peers(fleet: Fleet) -> None:
    assert fleet.named("Service", "vesk-public")["spec"]["externalTrafficPolicy"] == "Local"


def test_pods_find_each_other_by_the_names_in_the_settings(fleet: Fleet) -> None:
    (stateful_set,) = fleet.of_kind("StatefulSet")
    service = fleet.named("Service", stateful_set["spec"]["serviceName"])
    assert service["spec"]["clusterIP"] == "None"
    assert service["spec"]["publishNotReadyAddresses"] is True
    lateral = fleet.settings["lateral"]
    assert lateral["index_from"] == "hostname"
    assert lateral["peers_from"] == (f"{stateful_set['metadata']['name']}-{{index}}.{service['metadata']['name']}"
                                     f".${{POD_NAMESPACE}}.svc:{lateral['port']}")


def test_there_are_as_many_pods_as_owners(fleet: Fleet) -> None:
    source, _, name = fleet.settings["lateral"]["instances_from"].partition(":")
    assert source == "env"
    assert fleet.environment[name]["value"] == str(fleet.stateful_set["replicas"])


def test_every_variable_of_the_files_is_set(fleet: Fleet) -> None:
    named = {name for text in fleet.mounted().values() for name in variables(text)}
    assert named == set(fleet.environment)
    paths = {name: it["valueFrom"]["fieldRef"]["fieldPath"] for name, it in fleet.environment.items()
             if "valueFrom" in it}
    assert paths == {"POD_IP": "status.podIP", "POD_NAMESPACE": "metadata.namespace"}


def test_only_our_variables_begin_with_vesk(fleet: Fleet) -> None:
    assert fleet.pod["enableServiceLinks"] is False


def test_the_probes_ask_for_the_pages_of_the_controller(fleet: Fleet) -> None:
    pages = {probe: fleet.container[probe]["httpGet"] for probe in ("livenessProbe", "readinessProbe")}
    assert pages == {"livenessProbe": {"path": "/healthz", "port": "metrics"},
                     "readinessProbe": {"path": "/ready", "port": "metrics"}}
    # A pod that cannot answer them would be restarted again and again, without a reason in its log.
    assert fleet.settings["metrics"]["required"] is True


def test_the_controller_reads_the_mounted_folder(fleet: Fleet) -> None:
    (volume,) = fleet.pod["volumes"]
    (mount,) = fleet.container["volumeMounts"]
    assert mount == {"name": volume["name"], "mountPath": "/etc/vesk/conf.d", "readOnly": True}
    assert fleet.container["args"][-1].rstrip("/") == mount["mountPath"]


def test_the_files_are_readable_for_the_controller_and_accepted(fleet: Fleet) -> None:
    (volume,) = fleet.pod["volumes"]
    context = fleet.pod["securityContext"]
    assert volume["projected"]["defaultMode"] == 0o440
    assert context["fsGroup"] == context["runAsGroup"] == context["runAsUser"] == 10001
    # Kubernetes gives a file of a volume either to root alone or to a group.
    assert "--allow-readable-keys" in fleet.container["args"]


def test_every_key_file_of_a_flow_is_mounted(fleet: Fleet) -> None:
    files = fleet.mounted()
    named = {key for name, text in files.items() if name.endswith(".toml") for key in key_files(text)}
    assert named == {name for name in files if name.endswith(".key")}
    assert bool(named) == (fleet.name == "example")


def test_the_pods_have_no_rights(fleet: Fleet) -> None:
    assert fleet.pod["securityContext"]["runAsNonRoot"] is True
    assert fleet.pod["securityContext"]["seccompProfile"] == {"type": "RuntimeDefault"}
    assert fleet.pod["automountServiceAccountToken"] is False
    assert fleet.container["securityContext"] == {
        "allowPrivilegeEscalation": False, "readOnlyRootFilesystem": True, "capabilities": {"drop": ["ALL"]}}


def test_one_pod_at_a_time_is_disrupted(fleet: Fleet) -> None:
    (budget,) = fleet.of_kind("PodDisruptionBudget")
    assert budget["spec"] == {"maxUnavailable": 1, "selector": {"matchLabels": fleet.pod_labels}}
    assert fleet.stateful_set["podManagementPolicy"] == "Parallel"


def test_pods_are_spread_but_always_scheduled(fleet: Fleet) -> None:
    spread = fleet.pod["topologySpreadConstraints"]
    assert [it["topologyKey"] for it in spread] == ["kubernetes.io/hostname", "topology.kubernetes.io/zone"]
    for it in spread:
        assert it["whenUnsatisfiable"] == "ScheduleAnyway"
        assert it["labelSelector"] == {"matchLabels": fleet.pod_labels}


def test_memory_is_limited_and_the_processor_is_not(fleet: Fleet) -> None:
    resources = fleet.container["resources"]
    assert set(resources["requests"]) == {"cpu", "memory"}
    assert set(resources["limits"]) == {"memory"}


def _allowed(fleet: Fleet) -> Dict[str, List[Any]]:
    """Who may send to each port of the pods; an empty list means everybody."""
    allowed = {}
    for policy in fleet.of_kind("NetworkPolicy"):
        assert policy["spec"]["podSelector"] == {"matchLabels": fleet.pod_labels}
        assert policy["spec"]["policyTypes"] == ["Ingress"]
        for rule in policy["spec"]["ingress"]:
            for port in rule["ports"]:
                assert port["protocol"] == fleet.ports[port["port"]]["protocol"]
                allowed[port["port"]] = rule.get("from", [])
    return allowed


def test_only_pods_of_the_set_may_send_to_the_lateral_port(fleet: Fleet) -> None:
    allowed = _allowed(fleet)
    assert allowed["public"] == []
    assert allowed["lateral"] == [{"podSelector": {"matchLabels": fleet.pod_labels}}]


def _monitored(fleet: Fleet, monitor: Object) -> List[Any]:
    wanted = monitor["spec"]["selector"]["matchLabels"].items()
    ports = {it["port"] for it in monitor["spec"]["endpoints"]}
    return [(service["metadata"]["name"], port["name"]) for service in fleet.of_kind("Service")
            if wanted <= service["metadata"]["labels"].items()
            for port in service["spec"]["ports"] if port["name"] in ports]


def test_prometheus_finds_each_pod_and_may_ask_it(fleet: Fleet) -> None:
    monitors = fleet.of_kind("ServiceMonitor")
    # The base can be applied without the operator's resource.
    assert len(monitors) == (1 if fleet.name == "example" else 0)
    assert ("metrics" in _allowed(fleet)) == bool(monitors)
    for monitor in monitors:
        assert _monitored(fleet, monitor) == [("vesk", "metrics")]
        assert monitor["spec"]["endpoints"][0]["path"] == "/metrics"
