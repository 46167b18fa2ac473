#!/bin/sh
# The replication command against two gateway simulators: a master site
# and a slave site holding one account of a few nested files.
set -eu
. "$SRC_DIR/scripts/demo.d/sims.inc"
start_sim master dc-master
start_sim slave dc-slave
acc=$DEMO_DIR/master/alice
mkdir -p "$acc/backups/2026/11" "$acc/photos" "$DEMO_DIR/slave/alice"
echo "monday" >"$acc/backups/2026/11/monday.kpa"
echo "tuesday" >"$acc/backups/2026/11/tuesday.kpa"
echo "index" >"$acc/backups/catalog.xml"
echo "beach" >"$acc/photos/beach.jpg"
echo "half written" >"$acc/backups/.tmp.4711.xml"
mkdir -p "$DEMO_DIR/root/conf.d"
echo "root_dir = $DEMO_DIR/root" >"$DEMO_DIR/tarn.config"
cd "$DEMO_DIR"

# tool MASTER SLAVE OPERATION...: the replication command with the sims
# named MASTER and SLAVE as the sites (their tarn.pem: the PKI's site files).
tool() {
    m=$1 s=$2
    shift 2
    "$TOOL" -c tarn.config replication \
        --master-addr "$(eval echo "\$${m}_addr")" --master-uid "dc-$m" \
        --master-cert "$PKI/site-rsa.pem" \
        --slave-addr "$(eval echo "\$${s}_addr")" --slave-uid "dc-$s" \
        --slave-cert "$PKI/web-ec.pem" "$@"
}

# replicas NAME: the replica state of each file of the sim NAME, one a line.
replicas() {
    echo "--- replicas on $1:"
    dump "$(eval echo "\$${1}_addr")" | sed -e 's/.*"replicas":{//' -e 's/},"open_files".*//' \
        -e 's/},/}\n/g'
}

echo "--- 'tool M S OPERATION' below runs: quillon-tarn-ctl -c tarn.config replication"
echo "    --master-addr <M's address> --master-uid dc-M --master-cert <M's tarn.pem>"
echo "    --slave-addr <S's address> --slave-uid dc-S --slave-cert <S's tarn.pem> OPERATION"
echo '--- the account on the master (a temporary file among them):'
(cd master && find alice -type f | sort)
echo '--- enable: a new secret on both sites, every file but the temporary one replicated'
show tool master slave --enable /alice
echo '--- the slave now holds the replicas:'
(cd slave && find alice -type f | sort)
echo '--- check-consistency: silent when the sites agree'
show tool master slave --check-consistency /alice
replicas master
replicas slave

echo '--- switch-to-slave: the master demotes its files, the slave becomes their master'
show tool master slave --switch-to-slave /alice
replicas master
replicas slave
echo '--- the check now fails: the sites have swapped roles'
show tool master slave --check-consistency /alice

echo '--- detach on the slave (now the first site): its secret and replica states cleared'
show tool slave master --detach /alice
replicas master

echo '--- disable --force on the master (now the second site) while the other site is stopped'
stop_sim master
show tool slave master --force --disable /alice
replicas slave

echo '--- auto: this gateway (root_dir of tarn.config) replicates to dc-slave by itself'
show tool master slave --auto
ls -l root/conf.d
cat root/conf.d/replication.auto
